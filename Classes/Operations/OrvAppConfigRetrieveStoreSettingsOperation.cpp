#include "OrvAppConfigRetrieveStoreSettingsOperation.h"

#include "OrvAppConfigServiceLogger.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"

OrvAppConfigRetrieveStoreSettingsOperation::OrvAppConfigRetrieveStoreSettingsOperation(
    std::optional<OrvURL> storeURL, std::uint64_t hostType, std::uint64_t platform, std::optional<std::string> channelName,
    std::shared_ptr<OrvURLSession> urlSession, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService)
    : OrvAppConfigQueryOperation(std::move(urlSession), hostType, std::move(httpHeaderProviderService)),
      platform_(platform),
      channelName_(std::move(channelName)),
      storeURL_(std::move(storeURL)) {}

std::optional<OrvURL> OrvAppConfigRetrieveStoreSettingsOperation::appConfigRequestURL() {
  return OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(storeURL_, hostType(), platform_,
                                                                                    channelName_);
}

bool OrvAppConfigRetrieveStoreSettingsOperation::parseHttp200ResponseData(const OrvData& responseData,
                                                                          std::optional<OrvError>* error) {
  std::optional<OrvError> recordError;
  auto record = OrvAppConfigSettingsRecord::createFromData(responseData, &recordError);
  const auto nonEmpty = [](const auto& list) { return list && !list->empty(); };
  const auto kaleth = record ? record->kaleth() : nullptr;
  const auto appSettings = kaleth ? kaleth->appSettings() : nullptr;
  // Either platform's list will do, whatever platform was asked for.
  if (!recordError && appSettings && (nonEmpty(appSettings->macos()) || nonEmpty(appSettings->ios()))) {
    ORV_LOG_INFO("Successfully parsed the settings response for url: %@ . Invoking completion block with success status.",
                 record->url() ? record->url()->name() : std::optional<std::string>{});
    settingsRecord_ = std::move(record);
    if (error) *error = std::nullopt;
    return true;
  }
  ORV_LOG_ERROR("Parsing failed with error or no records were returned. Error = %@", recordError);
  if (error) *error = std::move(recordError);
  return false;
}
