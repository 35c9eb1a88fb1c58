// A public-key answer as the signing-certificate query receives it: the first byte says whether the
// rest is the certificate text itself or the whole JSON answer around it. Whatever certificate comes
// out must read back as itself from its DER and its PEM, and be judged by the verifier (with and
// without trust anchors) without crashing: every verdict is a code, and only 0 comes without error.
#include <boost/json.hpp>

#include "FuzzSupport.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"

using orv::detail::fuzzRequire;

ORV_FUZZ_TARGET(bytes) {
  if (bytes.empty()) return;
  static const auto plain = OrvSecurityUtilsService::create();
  const std::string rest = bytes.substr(1);
  const std::string answer = bytes[0] & 1 ? rest : boost::json::serialize(boost::json::object{{"certificate", rest}});

  auto operation = OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(plain, nullptr, 0, nullptr);
  operation->didCompleteUrlTaskWithData(
      answer, std::make_shared<const OrvHTTPURLResponse>(std::nullopt, 200, std::vector<std::pair<std::string, std::string>>{}),
      std::nullopt);
  const auto& certificate = operation->signingCertificate();
  fuzzRequire((operation->completionStatus() == 0) == (certificate != nullptr), "a certificate exactly when the answer was good");
  if (!certificate) return;

  const auto fromPem = OrvCertificate::certificateWithContent(certificate->pemString());
  fuzzRequire(fromPem && fromPem->derData() == certificate->derData(), "a certificate reads back from its own PEM");
  // The certificate as its own anchor: the chain check runs over whatever the input holds.
  OrvSecurityUtilsService::Configuration anchored;
  anchored.trustAnchors = {certificate};
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName("Varnel Systems, Inc.");
  for (const auto& service : {plain, OrvSecurityUtilsService::create(anchored)}) {
    const auto verdict =
        service->validateJWT("{}", std::string("eyJhbGciOiJSUzI1NiJ9"), std::string("c2ln"), certificate, &options);
    orv::detail::fuzzRequireVerdictShape(verdict);
    fuzzRequire(verdict.result != 0, "a made-up signature never verifies");
  }
}
