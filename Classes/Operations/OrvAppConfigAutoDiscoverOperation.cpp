#include "OrvAppConfigAutoDiscoverOperation.h"

#include "OrvAppConfigServiceLogger.h"

OrvAppConfigAutoDiscoverOperation::OrvAppConfigAutoDiscoverOperation(
    std::optional<std::string> userInput, std::uint64_t hostType, OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode,
    std::shared_ptr<OrvURLSession> urlSession, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService)
    : OrvAppConfigQueryOperation(std::move(urlSession), hostType, std::move(httpHeaderProviderService)),
      userInput_(std::move(userInput)),
      urlGeneratorMode_(urlGeneratorMode) {
  if (userInput_ && !userInput_->empty()) {
    autoDiscoverURL_ =
        OrvAppConfigAutoDiscoverURLGenerator::generateAutoDiscoverURLForUserInput(userInput_, hostType, urlGeneratorMode_);
  }
  if (!autoDiscoverURL_) {
    ORV_LOG_ERROR("Unable to build auto discover URL based on user input");
    return;
  }
  requestedDomain_ = autoDiscoverURL_->lastPathComponent();
}

bool OrvAppConfigAutoDiscoverOperation::parseHttp200ResponseData(const OrvData& responseData, std::optional<OrvError>* error) {
  std::optional<OrvError> recordError;
  auto record = OrvAppConfigAutoDiscoverRecord::createFromData(responseData, &recordError);
  const auto nonEmpty = [](const std::optional<OrvAppConfigURLList>& list) { return list && !list->empty(); };
  const auto& kaleth = record ? record->kaleth() : nullptr;
  if (!recordError && kaleth && (nonEmpty(kaleth->serviceUrls()) || nonEmpty(kaleth->allowedWebStoreUrls()))) {
    ORV_LOG_INFO("Successfully parsed the store records.");
    autoDiscoverRecord_ = std::move(record);
    if (error) *error = std::nullopt;
    return true;
  }
  ORV_LOG_ERROR("Parsing store records failed with error: %@", recordError);
  if (error) *error = std::move(recordError);
  return false;
}
