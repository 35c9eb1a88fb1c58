#include "OrvAppConfigService.h"

#include <algorithm>
#include <vector>

#include "OrvAppConfigServiceLogger.h"
#include "OrvMainQueue.h"
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
      orvSecurityUtilsService_(std::move(orvSecurityUtilsService)) {
  if (!urlSession_) return;
  // The service's operations only build requests and hand them to the session, so a few of them
  // started together run where the session handles its answers, and no worker is woken for them. Held
  // weakly: the queue may outlive the service, and must not keep the session alive.
  std::weak_ptr<OrvURLSession> weakSession = urlSession_;
  operationQueue().setUnderlyingExecutor([weakSession](std::function<void()>& task) {
    const auto session = weakSession.lock();
    return session && session->performOnCallbackThread(task);
  });
}

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
  context->setTraceRecorder(makeTraceRecorder(OrvAppConfigRequestTrace::Kind::autoDiscovery,
                                              userInput ? "\"" + *userInput + "\"" : std::string("no input")));
  asyncStartAutodiscoveryForContext(std::move(context));
}

void OrvAppConfigService::asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                                  std::uint64_t platform,
                                                                  OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) {
  OrvAppConfigService::asyncStartSettingsRetrievalForStoreUrls(std::move(storeUrls), hostType, platform, std::nullopt,
                                                               std::move(completionBlock));
}

void OrvAppConfigService::asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                                  std::uint64_t platform, std::optional<std::string> channelName,
                                                                  OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) {
  // With channels switched off the request is made exactly as by the form without a channel.
  if (!shouldEnableFeatureChannels()) channelName = std::nullopt;
  auto context = OrvAppConfigServiceSettingsRetrievalContext::initWithStoreUrls(std::move(storeUrls), hostType, platform,
                                                                                channelName, std::move(completionBlock));
  if (diagnosticsDelegate()) {
    std::vector<std::string> stores;
    for (const auto& url : context->storeUrls()) stores.push_back(url.absoluteString());
    std::sort(stores.begin(), stores.end());
    // A thousand stores would drown the headline: the queries name each one anyway.
    std::string subject = std::to_string(stores.size()) + " store(s) (";
    for (std::size_t i = 0; i < stores.size() && i < 3; ++i) subject += (i ? ", " : "") + stores[i];
    if (stores.size() > 3) subject += ", ...";
    subject += "), platform " + std::to_string(platform);
    if (context->channelName()) subject += ", channel \"" + *context->channelName() + "\"";
    context->setTraceRecorder(makeTraceRecorder(OrvAppConfigRequestTrace::Kind::settingsRetrieval, std::move(subject)));
  }
  asyncStartSettingsRetrievalForContext(std::move(context));
}

void OrvAppConfigService::setDiagnosticsDelegate(std::shared_ptr<OrvAppConfigDiagnosticsDelegate> delegate) {
  std::lock_guard lock(diagnosticsMutex_);
  diagnosticsDelegate_ = std::move(delegate);
}

std::shared_ptr<OrvAppConfigDiagnosticsDelegate> OrvAppConfigService::diagnosticsDelegate() const {
  std::lock_guard lock(diagnosticsMutex_);
  return diagnosticsDelegate_;
}

std::shared_ptr<orv::detail::RequestTraceRecorder> OrvAppConfigService::makeTraceRecorder(OrvAppConfigRequestTrace::Kind kind,
                                                                                          std::string subject) const {
  auto delegate = diagnosticsDelegate();
  if (!delegate) return nullptr;
  return std::make_shared<orv::detail::RequestTraceRecorder>(kind, std::move(subject), std::move(delegate));
}

void OrvAppConfigService::recordStep(const OrvAppConfigServiceContext& context, std::string name, bool passed, std::string detail,
                                     std::optional<std::string> url) {
  const auto& recorder = context.traceRecorder();
  if (!recorder) return;
  OrvAppConfigTraceStep step;
  step.name = std::move(name);
  step.passed = passed;
  step.detail = std::move(detail);
  step.url = std::move(url);
  recorder->addStep(std::move(step), recorder->now());
}

void OrvAppConfigService::deliverTrace(const std::shared_ptr<orv::detail::RequestTraceRecorder>& recorder,
                                       OrvAppConfigServiceCompletionStatus status, const std::optional<OrvError>& error) {
  if (!recorder || !recorder->delegate()) return;
  recorder->delegate()->didFinishRequestWithTrace(recorder->finish(status, error));
}
