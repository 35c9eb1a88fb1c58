// A public-key answer as the signing-certificate query receives it: the first byte says whether the
// rest is the certificate text itself or the whole JSON answer around it. Whatever certificate comes
// out must read back as itself from its DER and its PEM, and be judged by the verifier (with and
// without trust anchors) without crashing: every verdict is a code, and only 0 comes without error.
#include <cstddef>
#include <cstdint>

#include <boost/json.hpp>

#include "FuzzSupport.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"
#include "OrvSecurityUtilsService.h"

namespace {

using orv::detail::fuzzRequire;

const std::shared_ptr<OrvSecurityUtilsService>& plainService() {
  static const auto service = OrvSecurityUtilsService::create();
  return service;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orv::detail::installFuzzLogger();
  if (size == 0) return 0;
  const std::string rest = orv::detail::fuzzBytes(data + 1, size - 1);
  std::string answer = data[0] & 1 ? rest : boost::json::serialize(boost::json::object{{"certificate", rest}});

  auto operation = OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(plainService(), nullptr, 0, nullptr);
  operation->didCompleteUrlTaskWithData(
      answer, std::make_shared<const OrvHTTPURLResponse>(std::nullopt, 200, std::vector<std::pair<std::string, std::string>>{}),
      std::nullopt);
  const auto& certificate = operation->signingCertificate();
  fuzzRequire((operation->completionStatus() == 0) == (certificate != nullptr), "a certificate exactly when the answer was good");
  if (!certificate) return 0;

  const auto fromDer = OrvCertificate::certificateWithContent(certificate->pemString());
  fuzzRequire(fromDer && fromDer->derData() == certificate->derData(), "a certificate reads back from its own PEM");
  // The certificate as its own anchor: the chain check runs over whatever the input holds.
  OrvSecurityUtilsService::Configuration anchored;
  anchored.trustAnchors = {certificate};
  AdditionalCertificateValidationOptions options;
  options.setRequiredIssuerName("Varnel Systems, Inc.");
  for (const auto& service : {plainService(), OrvSecurityUtilsService::create(anchored)}) {
    const auto [result, error] =
        service->validateJWT("{}", std::string("eyJhbGciOiJSUzI1NiJ9"), std::string("c2ln"), certificate, &options);
    fuzzRequire(result != 0, "a made-up signature never verifies");
    fuzzRequire(error && error->code() == result, "a refusal carries its code");
  }
  return 0;
}
