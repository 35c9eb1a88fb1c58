#include "OrvAppConfigService.h"

#include "OrvAppConfigServiceLogger.h"
#include "OrvString.h"

const unsigned char OrvAppConfigServiceVersionString[] = ORV_VERSION_STRING;

std::shared_ptr<OrvAppConfigService> OrvAppConfigService::initWithURLSession(
    std::shared_ptr<OrvURLSession> urlSession, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService,
    std::shared_ptr<OrvSecurityServiceProtocol> orvSecurityUtilsService,
    std::shared_ptr<OrvFeatureFlagProviderProtocol> featureFlagProvider) {
  auto service = std::make_shared<OrvAppConfigService>(PrivateTag{}, std::move(urlSession), std::move(httpHeaderProviderService),
                                                       std::move(orvSecurityUtilsService));
  if (featureFlagProvider) {
    // Asked in this order, once; later changes in the host's store have no effect.
    service->setShouldValidateEntireDomainForURLDiscovery(featureFlagProvider->valueForFeatureFlagWithServiceName(
        OrvAppConfigServiceFeatureFlagServiceName, OrvAppConfigServiceFeatureFlagUseEntireDomainForURLDiscovery));
    service->setShouldEnableFeatureChannels(featureFlagProvider->valueForFeatureFlagWithServiceName(
        OrvAppConfigServiceFeatureFlagServiceName, OrvAppConfigServiceFeatureFlagEnableFeatureChannels));
  }
  return service;
}

OrvAppConfigService::OrvAppConfigService(PrivateTag, std::shared_ptr<OrvURLSession> urlSession,
                                         std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService,
                                         std::shared_ptr<OrvSecurityServiceProtocol> orvSecurityUtilsService)
    : OrvAtomicWorkflowService(OrvAppConfigOperationQueueName),
      urlSession_(std::move(urlSession)),
      httpHeaderProviderService_(std::move(httpHeaderProviderService)),
      orvSecurityUtilsService_(std::move(orvSecurityUtilsService)) {}

void OrvAppConfigService::setLoggerDelegate(std::shared_ptr<OrvSdkLoggerDelegate> delegate) {
  OrvAppConfigServiceLogger::sharedInstance()->setDelegate(std::move(delegate));
}

std::string OrvAppConfigService::descriptionForCompletionStatus(OrvAppConfigServiceCompletionStatus status) {
  switch (status) {
    case OrvAppConfigServiceCompletionStatusSuccess:
      return "OrvAppConfigServiceCompletionStatusSuccess";
    case OrvAppConfigServiceCompletionStatusInvalidParameters:
      return "OrvAppConfigServiceCompletionStatusInvalidParameters";
    case OrvAppConfigServiceCompletionStatusAutodiscoveryFailed:
      return "OrvAppConfigServiceCompletionStatusAutodiscoveryFailed";
    case OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed:
      return "OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed";
    default:
      return orv::detail::formatPlatformString("Unknown OrvAppConfigServiceCompletionStatus of %lu",
                                               std::array{OrvDescription(status)});
  }
}

void OrvAppConfigService::asyncStartAutodiscoveryForUserInput(std::optional<std::string> userInput, std::uint64_t hostType,
                                                              OrvAppConfigAutoDiscoveryCompletionBlock completionBlock) {
  auto context = OrvAppConfigServiceAutoDiscoveryContext::initWithUserInput(orv::detail::trimWhitespaceAndNewlines(userInput),
                                                                            hostType, std::move(completionBlock));
  asyncStartAutodiscoveryForContext(std::move(context));
}

void OrvAppConfigService::asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                                  std::uint64_t platform,
                                                                  OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) {
  auto context = OrvAppConfigServiceSettingsRetrievalContext::initWithStoreUrls(std::move(storeUrls), hostType, platform,
                                                                                std::nullopt, std::move(completionBlock));
  asyncStartSettingsRetrievalForContext(std::move(context));
}

void OrvAppConfigService::asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                                  std::uint64_t platform, std::optional<std::string> channelName,
                                                                  OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) {
  // With channels switched off the request is made exactly as by the form without a channel.
  if (!shouldEnableFeatureChannels()) channelName = std::nullopt;
  auto context = OrvAppConfigServiceSettingsRetrievalContext::initWithStoreUrls(std::move(storeUrls), hostType, platform,
                                                                                channelName, std::move(completionBlock));
  asyncStartSettingsRetrievalForContext(std::move(context));
}
