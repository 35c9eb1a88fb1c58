// A public-key answer as the signing-certificate query receives it: the first byte says whether the
// rest is the certificate text as sent or to be put in the JSON answer around it. The rest is also read
// as certificate text and as a PEM bundle, as trust-anchor files are read. Whatever certificate comes
// out must read back as itself from its DER and its PEM, and be judged by the verifier (with and
// without trust anchors) without crashing: every verdict is a code, and only 0 comes without error.
#include <boost/json.hpp>

#include "FuzzSupport.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"

using orv::detail::fuzzRequire;

static const auto plain = OrvSecurityUtilsService::create();

static void judge(const OrvCertificateRef& certificate) {
  orv::detail::fuzzTouch(certificate->subjectOrganization(), certificate->subjectCommonName(), certificate->issuerOrganization(),
                         certificate->issuerCommonName(), certificate->notValidBefore(), certificate->notValidAfter(),
                         certificate->sha256Thumbprint());
  const auto fromDer = OrvCertificate::certificateWithDER(certificate->derData());
  fuzzRequire(fromDer && fromDer->derData() == certificate->derData(), "a certificate reads back from its DER");
  const auto fromPem = OrvCertificate::certificateWithContent(certificate->pemString());
  fuzzRequire(fromPem && fromPem->derData() == certificate->derData(), "a certificate reads back from its own PEM");
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName("Varnel Systems, Inc.");
  // RS256 and ES256, so that an RSA or a P-256 key gets past the key check to the certificate's own. The
  // certificate as its own anchor: the chain check runs over whatever the input holds.
  for (const auto& service : {plain, OrvSecurityUtilsService::create({.trustAnchors = {certificate}})}) {
    for (const char* header : {"eyJhbGciOiJSUzI1NiJ9", "eyJhbGciOiJFUzI1NiJ9"}) {
      const auto verdict = service->validateJWT("{}", std::string(header), std::string("c2ln"), certificate, &options);
      orv::detail::fuzzRequireVerdictShape(verdict);
      fuzzRequire(verdict.result != 0, "a made-up signature never verifies");
    }
  }
}

ORV_FUZZ_TARGET(bytes) {
  if (bytes.empty()) return;
  const std::string rest = bytes.substr(1);
  if (const auto certificate = OrvCertificate::certificateWithContent(rest)) judge(certificate);
  if (const auto bundle = OrvSecurityUtilsService::certificatesFromPEMBundle(rest)) {
    fuzzRequire(!bundle->empty(), "a bundle that reads holds a certificate");
    for (const auto& certificate : *bundle) fuzzRequire(certificate != nullptr, "a bundle holds no null certificate");
  }

  const std::string answer = bytes[0] & 1 ? rest : boost::json::serialize(boost::json::object{{"certificate", rest}});
  auto operation = OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(plain, nullptr, 0, nullptr);
  operation->didCompleteUrlTaskWithData(
      answer, std::make_shared<const OrvHTTPURLResponse>(std::nullopt, 200, std::vector<std::pair<std::string, std::string>>{}),
      std::nullopt);
  const auto& certificate = operation->signingCertificate();
  fuzzRequire((operation->completionStatus() == 0) == (certificate != nullptr), "a certificate exactly when the answer was good");
  if (certificate) judge(certificate);
}
