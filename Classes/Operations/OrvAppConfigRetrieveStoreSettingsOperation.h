#pragma once
// Asks the discovery service for the settings of one store, platform and optional channel.
#include "OrvAppConfigQueryOperation.h"
#include "OrvAppConfigSettingsRecord.h"

class OrvAppConfigRetrieveStoreSettingsOperation : public OrvAppConfigQueryOperation {
 public:
  OrvAppConfigRetrieveStoreSettingsOperation(std::optional<OrvURL> storeURL, std::uint64_t hostType, std::uint64_t platform,
                                             std::optional<std::string> channelName, std::shared_ptr<OrvURLSession> urlSession,
                                             std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService);
  static std::shared_ptr<OrvAppConfigRetrieveStoreSettingsOperation> initWithStoreURL(
      std::optional<OrvURL> storeURL, std::uint64_t hostType, std::uint64_t platform, std::optional<std::string> channelName,
      std::shared_ptr<OrvURLSession> urlSession,
      std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService) {
    return std::make_shared<OrvAppConfigRetrieveStoreSettingsOperation>(std::move(storeURL), hostType, platform,
                                                                        std::move(channelName), std::move(urlSession),
                                                                        std::move(httpHeaderProviderService));
  }

  std::uint64_t platform() const noexcept { return platform_; }
  const std::optional<std::string>& channelName() const noexcept { return channelName_; }
  const std::optional<OrvURL>& storeURL() const noexcept { return storeURL_; }
  const std::shared_ptr<OrvAppConfigSettingsRecord>& settingsRecord() const noexcept { return settingsRecord_; }

  // Computed when the operation starts, not at creation.
  std::optional<OrvURL> appConfigRequestURL() override;
  std::string appConfigQueryOperationFriendlyName() const override { return "SettingsQuery"; }
  bool parseHttp200ResponseData(const OrvData& responseData, std::optional<OrvError>* error) override;

 private:
  std::uint64_t platform_;
  std::optional<std::string> channelName_;
  std::optional<OrvURL> storeURL_;
  std::shared_ptr<OrvAppConfigSettingsRecord> settingsRecord_;
};
