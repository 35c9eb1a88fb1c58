// From user input to a validated auto-discover record, as one atomic workflow of the service.
#include "OrvAppConfigAutoDiscoverOperation.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvMainQueue.h"
#include "OrvSDKStringUtils.h"
#include "OrvString.h"

void OrvAppConfigService::asyncStartAutodiscoveryForContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context) {
  if (!context->userInput() || context->userInput()->empty() || !context->completionBlock()) {
    ORV_LOG_ERROR("nil email address or completion block was provided - failing request");
    recordStep(*context, "parameters", false, "no user input, or no completion block");
    invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(std::move(context),
                                                             OrvAppConfigServiceCompletionStatusInvalidParameters, std::nullopt);
    return;
  }
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  auto start = OrvBlockOperation::blockOperationWithBlock([weakSelf, context] {
    if (auto self = weakSelf.lock()) self->startAutoDiscoverOperationForContext(context);
  });
  startAtomicWorkflowWithOperation(std::move(start));
}

void OrvAppConfigService::startAutoDiscoverOperationForContext(std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context) {
  ORV_LOG_INFO(
      "Scheduling AutoDiscover operation using URL generator mode  %@",
      OrvAppConfigAutoDiscoverURLGenerator::descriptionForAutoDiscoverURLGeneratorMode(context->autoDiscoverURLGeneratorMode()));
  auto operation = OrvAppConfigAutoDiscoverOperation::initWithUserInput(context->userInput(), context->hostType(),
                                                                        context->autoDiscoverURLGeneratorMode(), urlSession(),
                                                                        httpHeaderProviderService());
  operation->setTraceRecorder(context->traceRecorder(),
                              context->autoDiscoverURLGeneratorMode() == OrvAppConfigAutoDiscoverURLGeneratorModeEntireDomain
                                  ? "fallback probe query"
                                  : "auto-discover query");
  // Overwritten at each query, so after a fallback it names the second query's domain.
  context->setRequestedDomain(operation->requestedDomain());
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  std::weak_ptr<OrvAppConfigAutoDiscoverOperation> weakOperation = operation;
  operation->setCompletionBlock([weakSelf, weakOperation, context] {
    auto self = weakSelf.lock();
    auto finished = weakOperation.lock();
    if (self && finished) self->didCompleteAppConfigAutoDiscoverOperation(finished, context);
  });
  // Runs inside the open atomic workflow; the fallback probe starts no new one either.
  operationQueue().addOperation(std::move(operation));
}

void OrvAppConfigService::didCompleteAppConfigAutoDiscoverOperation(
    const std::shared_ptr<OrvAppConfigAutoDiscoverOperation>& operation,
    std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context) {
  if (operation->completionStatus() != OrvAppConfigQueryOperationCompletionStatusSuccess) {
    const auto statusDescription = OrvAppConfigQueryOperation::descriptionForCompletionStatus(operation->completionStatus());
    if (shouldMoveToFullDomainProbeForContext(*context)) {
      ORV_LOG_INFO(
          "Failed to obtain the records for the provided email address with status %@ - attempting probe of full domain for URL "
          "input",
          statusDescription);
      recordStep(*context, "fallback probe", true,
                 "the query for the last two labels of the host failed; asking once more about the whole host");
      context->setAutoDiscoverURLGeneratorMode(OrvAppConfigAutoDiscoverURLGeneratorModeEntireDomain);
      startAutoDiscoverOperationForContext(std::move(context));
      return;
    }
    ORV_LOG_ERROR("Failed to obtain the records for the provided email address with status %@ - failing permanently",
                  statusDescription);
    invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(
        std::move(context), OrvAppConfigServiceCompletionStatusAutodiscoveryFailed, operation->completionError());
    return;
  }
  ORV_LOG_INFO("Successfully obtained the records for the provided email address - validating returned objects");
  const auto& record = operation->autoDiscoverRecord();
  // The URL check comes first: an answer without a usable URL costs no certificate fetch.
  if (!storeListRecordsContainAtLeastOneValidURL(record)) {
    ORV_LOG_ERROR("No valid store URLs were returned");
    recordStep(*context, "store URLs", false, "the answer names no usable store or web-store URL");
    invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(
        std::move(context), OrvAppConfigServiceCompletionStatusAutodiscoveryFailed, std::nullopt);
    return;
  }
  ORV_LOG_INFO("At least one valid store or webstore URL was returned");
  context->setAutoDiscoverRecord(record);
  auto payload = OrvAppConfigServicePayloadValidationContext::initWithResponseData(
      operation->responseData(), operation->varnelSignatureHeader(), record->notValidBefore(), record->notValidAfter());
  if (context->traceRecorder() && operation->autoDiscoverURL())
    payload->setSourceURL(operation->autoDiscoverURL()->absoluteString());
  context->addPayloadValidationContext(std::move(payload));
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  asyncValidatePayloadsForContext(context, [weakSelf, context](OrvPayloadValidationStatus status, std::optional<OrvError> error) {
    if (auto self = weakSelf.lock()) self->didValidateAutoDiscoverPayloadsForContext(context, status, std::move(error));
  });
}

bool OrvAppConfigService::shouldMoveToFullDomainProbeForContext(const OrvAppConfigServiceAutoDiscoveryContext& context) const {
  if (!shouldValidateEntireDomainForURLDiscovery()) return false;
  // Only from the first query: at most one fallback per request.
  if (context.autoDiscoverURLGeneratorMode() != OrvAppConfigAutoDiscoverURLGeneratorModeTwoDomainElements) return false;
  const std::string input = context.userInput().value_or("");
  if (OrvAppConfigServiceUtils::isEmailAddress(input)) return false;
  const auto url = OrvAppConfigServiceUtils::urlFromString(input);
  const auto host = url ? url->host() : std::nullopt;
  // Three labels or more: the last two were already tried.
  return host && orv::detail::componentsSeparatedByString(*host, ".").size() > 2;
}

void OrvAppConfigService::didValidateAutoDiscoverPayloadsForContext(
    std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context, OrvPayloadValidationStatus status,
    std::optional<OrvError> error) {
  if (status != OrvPayloadValidationStatusSuccess) {
    ORV_LOG_INFO("Failed to validate the app config payload with status %@ - invoking completion block",
                 descriptionForPayloadValidationStatus(status));
    invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(
        std::move(context), OrvAppConfigServiceCompletionStatusAutodiscoveryFailed, std::move(error));
    return;
  }
  const auto& record = context->autoDiscoverRecord();
  const std::optional<std::string> returnedDomain =
      record && record->domain() ? record->domain()->name() : std::optional<std::string>{};
  // Whole-string and case-insensitive: no trimming, no suffix or sub-domain matching.
  const bool sameDomain =
      context->requestedDomain() && OrvIsCaseInsensitiveEqualToString(context->requestedDomain(), returnedDomain);
  recordStep(*context, "domain match", sameDomain,
             "asked about \"" + context->requestedDomain().value_or("(none)") + "\", the answer is about \"" +
                 returnedDomain.value_or("(none)") + "\"");
  if (sameDomain) {
    ORV_LOG_INFO("The requested domain was successfully validated as being the same as the returned domain");
    invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(std::move(context), OrvAppConfigServiceCompletionStatusSuccess,
                                                             std::nullopt);
    return;
  }
  ORV_LOG_INFO("Failed to validate the domain in the response payload");
  invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(std::move(context),
                                                           OrvAppConfigServiceCompletionStatusAutodiscoveryFailed, std::nullopt);
}

bool OrvAppConfigService::storeListRecordsContainAtLeastOneValidURL(
    const std::shared_ptr<OrvAppConfigAutoDiscoverRecord>& record) {
  if (!record || !record->kaleth()) return false;
  const auto hasURL = [](const std::optional<OrvAppConfigURLList>& list) {
    if (!list) return false;
    for (const auto& entry : *list) {
      if (entry && entry->url()) return true;
    }
    return false;
  };
  return hasURL(record->kaleth()->serviceUrls()) || hasURL(record->kaleth()->allowedWebStoreUrls());
}

void OrvAppConfigService::invokeCompletionBlockOnMainThreadForAutoDiscoveryContext(
    std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> context, OrvAppConfigServiceCompletionStatus status,
    std::optional<OrvError> error) {
  // First, so that the next queued request may start while this result travels to the main thread.
  endAtomicWorkflow();
  if (!context->completionBlock()) return;
  OrvMainQueue::dispatchAsync([context = std::move(context), status, error = std::move(error)] {
    deliverTrace(context->traceRecorder(), status, error);
    if (status != OrvAppConfigServiceCompletionStatusSuccess) context->setAutoDiscoverRecord(nullptr);
    context->completionBlock()(status, context->autoDiscoverRecord(), error);
  });
}
