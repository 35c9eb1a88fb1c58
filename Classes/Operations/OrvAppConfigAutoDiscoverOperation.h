#pragma once
// Asks the discovery service for the records published for one corporate domain.
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigAutoDiscoverURLGenerator.h"
#include "OrvAppConfigQueryOperation.h"

class OrvAppConfigAutoDiscoverOperation : public OrvAppConfigQueryOperation {
 public:
  OrvAppConfigAutoDiscoverOperation(std::optional<std::string> userInput, std::uint64_t hostType,
                                    OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode,
                                    std::shared_ptr<OrvURLSession> urlSession,
                                    std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService);
  static std::shared_ptr<OrvAppConfigAutoDiscoverOperation> initWithUserInput(
      std::optional<std::string> userInput, std::uint64_t hostType, OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode,
      std::shared_ptr<OrvURLSession> urlSession,
      std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService) {
    return std::make_shared<OrvAppConfigAutoDiscoverOperation>(std::move(userInput), hostType, urlGeneratorMode,
                                                               std::move(urlSession), std::move(httpHeaderProviderService));
  }

  const std::optional<std::string>& userInput() const noexcept { return userInput_; }
  // Taken back from the URL that is sent, so it is exactly the domain asked about.
  const std::optional<std::string>& requestedDomain() const noexcept { return requestedDomain_; }
  const std::optional<OrvURL>& autoDiscoverURL() const noexcept { return autoDiscoverURL_; }
  OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode() const noexcept { return urlGeneratorMode_; }
  const std::shared_ptr<OrvAppConfigAutoDiscoverRecord>& autoDiscoverRecord() const noexcept { return autoDiscoverRecord_; }

  std::optional<OrvURL> appConfigRequestURL() override { return autoDiscoverURL_; }
  std::string appConfigQueryOperationFriendlyName() const override { return "AutoDiscover"; }
  bool parseHttp200ResponseData(const OrvData& responseData, std::optional<OrvError>* error) override;

 private:
  std::optional<std::string> userInput_;
  std::optional<std::string> requestedDomain_;
  std::optional<OrvURL> autoDiscoverURL_;
  OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode_;
  std::shared_ptr<OrvAppConfigAutoDiscoverRecord> autoDiscoverRecord_;
};
