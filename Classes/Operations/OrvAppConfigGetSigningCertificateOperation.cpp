#include "OrvAppConfigGetSigningCertificateOperation.h"

#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvJSONAccessors.h"
#include "OrvJSONSerialization.h"
#include "OrvKeptByBytes.h"

namespace {

// The key answer is fetched for every request and is nearly always the same text, yet reading it as
// JSON cost as much as reading a store's settings. Only answers that gave content are kept; a rotation
// brings a second answer for a while, and staging and production hosts have one each.
orv::detail::KeptByBytes<std::string>& keyAnswersRead() {
  // Never destroyed: operations may end during exit.
  static auto* const answers = new orv::detail::KeptByBytes<std::string>(4);
  return *answers;
}

}  // namespace

OrvAppConfigGetSigningCertificateOperation::OrvAppConfigGetSigningCertificateOperation(
    std::shared_ptr<OrvSecurityServiceProtocol> securityService, std::shared_ptr<OrvURLSession> urlSession,
    std::uint64_t hostType, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService)
    : OrvAppConfigQueryOperation(std::move(urlSession), hostType, std::move(httpHeaderProviderService)),
      securityService_(std::move(securityService)) {}

std::optional<OrvURL> OrvAppConfigGetSigningCertificateOperation::appConfigRequestURL() {
  const std::string host =
      hostType() == 1 ? OrvAppConfigDiscoveryHosts::stagingHost() : OrvAppConfigDiscoveryHosts::productionHost();
  return OrvURL::URLWithString("https://" + host + "/ads/root/publickey");
}

bool OrvAppConfigGetSigningCertificateOperation::parseHttp200ResponseData(const OrvData& responseData,
                                                                          std::optional<OrvError>* error) {
  ORV_LOG_INFO("Obtained signing certificate content JSON response");
  std::optional<OrvError> extractionError;
  const auto content = extractCertificateContentFromResponseData(responseData, &extractionError);
  bool parsed = false;
  if (content) {
    ORV_LOG_INFO("Successfully extracted the signing certificate content from the response JSON");
    signingCertificate_ = securityService_ ? securityService_->createCertificateFromCertificateContent(*content) : nullptr;
    if (signingCertificate_) {
      ORV_LOG_INFO("Successfully extracted the signing certificate from the response content");
      parsed = true;
    } else {
      ORV_LOG_ERROR("Failed to extract the signing certificate from the response content");
    }
  } else {
    ORV_LOG_ERROR("Failed to extract the certificate from the response data, error=%@", extractionError);
  }
  if (error) *error = std::move(extractionError);
  return parsed;
}

std::optional<std::string> OrvAppConfigGetSigningCertificateOperation::extractCertificateContentFromResponseData(
    const OrvData& responseData, std::optional<OrvError>* error) {
  auto& readAnswers = keyAnswersRead();
  if (auto content = readAnswers.find(responseData)) {
    if (error) *error = std::nullopt;
    return content;
  }
  std::optional<OrvError> parseError;
  const auto document = orv::detail::parseJSONDocument(responseData, OrvJSONReadingOptions::none, &parseError);
  if (!document) {
    ORV_LOG_ERROR("Unable to parse JSON response with error=%@", parseError);
    if (error) *error = std::move(parseError);
    return std::nullopt;
  }
  if (error) *error = std::nullopt;
  const auto* object = document->value().if_object();
  if (!object) {
    ORV_LOG_ERROR("Response object was not a dictionary - unable to parse certificate from public key response");
    return std::nullopt;
  }
  auto content = OrvJSON::jsonStringForKey(object, "certificate");
  if (content) {
    readAnswers.keep(responseData, *content);
  } else {
    ORV_LOG_ERROR("Unable to extract certificate content from the public key response");
  }
  return content;
}
