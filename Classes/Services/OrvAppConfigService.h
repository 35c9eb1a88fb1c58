#pragma once
// The one object a host creates and talks to. Entry points may be called from any thread and never
// block; every result arrives through the completion block, on the main queue, never synchronously.
// Pending requests hold the service weakly: releasing it ends them without a completion.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "OrvAppConfigRequestTrace.h"
#include "OrvAppConfigServiceConstants.h"
#include "OrvAppConfigServiceContext.h"
#include "OrvAppConfigServiceProtocol.h"
#include "OrvAppConfigServiceTypes.h"
#include "OrvAtomicWorkflowService.h"
#include "OrvFeatureFlagProviderProtocol.h"
#include "OrvHttpHeaderProviderServiceProtocol.h"
#include "OrvSdkLogger.h"
#include "OrvSecurityServiceProtocol.h"
#include "OrvURLSession.h"

class OrvAppConfigAutoDiscoverOperation;

class OrvAppConfigService : public OrvAtomicWorkflowService,
                            public OrvAppConfigServiceProtocol,
                            public std::enable_shared_from_this<OrvAppConfigService> {
  struct PrivateTag {};

 public:
  using PayloadValidationCompletionBlock = std::function<void(OrvPayloadValidationStatus status, std::optional<OrvError> error)>;
  using CurrentDateProvider = std::function<OrvDate()>;

  // The feature-flag provider (may be nullptr) is asked once, here, and not kept; without one both
  // features are on. Returns nullptr only if the base class cannot be set up.
  static std::shared_ptr<OrvAppConfigService> initWithURLSession(
      std::shared_ptr<OrvURLSession> urlSession, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService,
      std::shared_ptr<OrvSecurityServiceProtocol> orvSecurityUtilsService,
      std::shared_ptr<OrvFeatureFlagProviderProtocol> featureFlagProvider);
  OrvAppConfigService(PrivateTag, std::shared_ptr<OrvURLSession> urlSession,
                      std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService,
                      std::shared_ptr<OrvSecurityServiceProtocol> orvSecurityUtilsService);

  static void setLoggerDelegate(std::shared_ptr<OrvSdkLoggerDelegate> delegate);
  static std::string descriptionForCompletionStatus(OrvAppConfigServiceCompletionStatus status);

  // Entry points.
  void asyncStartAutodiscoveryForUserInput(std::optional<std::string> userInput, std::uint64_t hostType,
                                           OrvAppConfigAutoDiscoveryCompletionBlock completionBlock) override;
  void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                                               OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) override;
  void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                                               std::optional<std::string> channelName,
                                               OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) override;

  // Properties.
  const std::shared_ptr<OrvURLSession>& urlSession() const noexcept { return urlSession_; }
  void setUrlSession(std::shared_ptr<OrvURLSession> session) { urlSession_ = std::move(session); }
  const std::shared_ptr<OrvHttpHeaderProviderServiceProtocol>& httpHeaderProviderService() const noexcept {
    return httpHeaderProviderService_;
  }
  void setHttpHeaderProviderService(std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> provider) {
    httpHeaderProviderService_ = std::move(provider);
  }
  const std::shared_ptr<OrvSecurityServiceProtocol>& orvSecurityUtilsService() const noexcept { return orvSecurityUtilsService_; }
  void setOrvSecurityUtilsService(std::shared_ptr<OrvSecurityServiceProtocol> service) {
    orvSecurityUtilsService_ = std::move(service);
  }
  bool shouldValidateEntireDomainForURLDiscovery() const noexcept { return shouldValidateEntireDomainForURLDiscovery_.load(); }
  void setShouldValidateEntireDomainForURLDiscovery(bool value) noexcept { shouldValidateEntireDomainForURLDiscovery_ = value; }
  bool shouldEnableFeatureChannels() const noexcept { return shouldEnableFeatureChannels_.load(); }
  void setShouldEnableFeatureChannels(bool value) noexcept { shouldEnableFeatureChannels_ = value; }

  // Opt-in diagnostics: with a delegate, every request started from then on is traced and its trace
  // handed to the delegate just before its completion block. nullptr stops tracing.
  void setDiagnosticsDelegate(std::shared_ptr<OrvAppConfigDiagnosticsDelegate> delegate);
  std::shared_ptr<OrvAppConfigDiagnosticsDelegate> diagnosticsDelegate() const;

  // The clock of the payload date check; the system clock unless a host or a test sets another.
  // Set it before starting requests.
  void setCurrentDateProvider(CurrentDateProvider provider) { currentDateProvider_ = std::move(provider); }

  // Auto-discovery workflow.
  void asyncStartAutodiscoveryForContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context);
  void startAutoDiscoverOperationForContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context);
  void didCompleteAppConfigAutoDiscoverOperation(const std::shared_ptr<OrvAppConfigAutoDiscoverOperation>& operation,
                                                 std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context);
  bool shouldMoveToFullDomainProbeForContext(const OrvAppConfigServiceAutoDiscoveryContext& context) const;
  void didValidateAutoDiscoverPayloadsForContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context,
                                                 OrvPayloadValidationStatus status, std::optional<OrvError> error);
  static bool storeListRecordsContainAtLeastOneValidURL(const std::shared_ptr<OrvAppConfigAutoDiscoverRecord>& record);
  void invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context,
                                                                OrvAppConfigServiceCompletionStatus status,
                                                                std::optional<OrvError> error);

  // Payload validation workflow.
  void asyncValidatePayloadsForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                       PayloadValidationCompletionBlock completionBlock);
  void asyncValidatePayloadSignaturesForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                PayloadValidationCompletionBlock completionBlock);
  void asyncGetSigningCertificateForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                            PayloadValidationCompletionBlock completionBlock);
  void didGetSigningCertificateForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                          OrvCertificateRef signingCertificate, std::optional<OrvError> error,
                                          PayloadValidationCompletionBlock completionBlock);
  void asyncValidateAppConfigPayloadForContext(std::shared_ptr<OrvAppConfigServicePayloadValidationContext> payloadContext,
                                               OrvCertificateRef signingCertificate,
                                               PayloadValidationCompletionBlock completionBlock);
  void didCompletePayloadValidationForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                              PayloadValidationCompletionBlock completionBlock);
  bool validateNotValidBeforeAndAfterDatesForContext(const OrvAppConfigServiceContext& context) const;
  static std::string descriptionForPayloadValidationStatus(OrvPayloadValidationStatus status);

  // Settings retrieval workflow.
  void asyncStartSettingsRetrievalForContext(std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context);
  static bool isValidFeatureChannelNameForContext(const OrvAppConfigServiceSettingsRetrievalContext& context);
  void coreStartSettingsRetrievalForContext(std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context);
  void didCompleteStoreSettingsRetrievalOperationsForContext(
      std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context);
  void didValidateSettingsRetrievalPayloadsForContext(std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context,
                                                      OrvPayloadValidationStatus status, std::optional<OrvError> error);
  static bool doRequestedStoreURLsMapToResponseStoreURLsForContext(const OrvAppConfigServiceSettingsRetrievalContext& context);
  static bool doesRequestedChannelNameMapToResponseChannelNameForContext(
      const OrvAppConfigServiceSettingsRetrievalContext& context);
  void invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
      std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context, OrvAppConfigServiceCompletionStatus status,
      std::optional<OrvError> error);

 private:
  std::shared_ptr<orv::detail::RequestTraceRecorder> makeTraceRecorder(OrvAppConfigRequestTrace::Kind kind,
                                                                       std::string subject) const;
  static void recordStep(const OrvAppConfigServiceContext& context, std::string name, bool passed, std::string detail,
                         std::optional<std::string> url = std::nullopt);
  static void deliverTrace(const std::shared_ptr<orv::detail::RequestTraceRecorder>& recorder,
                           OrvAppConfigServiceCompletionStatus status, const std::optional<OrvError>& error);

  std::shared_ptr<OrvURLSession> urlSession_;
  std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService_;
  std::shared_ptr<OrvSecurityServiceProtocol> orvSecurityUtilsService_;
  std::atomic<bool> shouldValidateEntireDomainForURLDiscovery_{true};
  std::atomic<bool> shouldEnableFeatureChannels_{true};
  CurrentDateProvider currentDateProvider_;
  mutable std::mutex diagnosticsMutex_;
  std::shared_ptr<OrvAppConfigDiagnosticsDelegate> diagnosticsDelegate_;
};
