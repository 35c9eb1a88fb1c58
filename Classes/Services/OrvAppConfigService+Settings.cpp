// Settings for a set of stores: all queried at once, the answers that arrived validated together and
// matched to the stores and channel that were asked for. Starts no atomic workflow, yet its delivery
// ends the active one like every other delivery.
#include <atomic>

#include "OrvAppConfigRetrieveStoreSettingsOperation.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvMainQueue.h"
#include "OrvString.h"

void OrvAppConfigService::asyncStartSettingsRetrievalForContext(
    std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context) {
  if (context->storeUrls().empty() || !context->completionBlock() || !isValidFeatureChannelNameForContext(*context)) {
    ORV_LOG_ERROR("Store URL count = %lu (expected non-zero) or invalid channel name %@ or nil completionBlock provided",
                  context->storeUrls().size(), context->channelName().value_or("(nil)"));
    recordStep(*context, "parameters", false,
               "no store URL, a channel name with characters a URL path cannot carry, or no completion block");
    invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
        std::move(context), OrvAppConfigServiceCompletionStatusInvalidParameters, std::nullopt);
    return;
  }
  coreStartSettingsRetrievalForContext(std::move(context));
}

bool OrvAppConfigService::isValidFeatureChannelNameForContext(const OrvAppConfigServiceSettingsRetrievalContext& context) {
  const auto& channelName = context.channelName();
  return !channelName || orv::detail::containsOnlyURLPathAllowedCharacters(*channelName);
}

void OrvAppConfigService::coreStartSettingsRetrievalForContext(
    std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context) {
  const std::size_t count = context->storeUrls().size();
  // Finished-callbacks run on the queue's threads and may overlap: the last one, and only that one,
  // moves the workflow on.
  auto finishedCount = std::make_shared<std::atomic<std::size_t>>(0);
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  std::vector<std::shared_ptr<OrvAppConfigRetrieveStoreSettingsOperation>> operations;
  operations.reserve(count);
  for (const OrvURL& storeURL : context->storeUrls()) {
    auto operation = OrvAppConfigRetrieveStoreSettingsOperation::initWithStoreURL(
        storeURL, context->hostType(), context->platform(), context->channelName(), urlSession(), httpHeaderProviderService());
    if (context->traceRecorder())
      operation->setTraceRecorder(context->traceRecorder(), "settings query for " + storeURL.absoluteString());
    // The callback holds the context strongly although the context keeps its operations: an operation
    // drops its completion block once it has run, which breaks the cycle.
    operation->setCompletionBlock([weakSelf, context, finishedCount, count] {
      if (finishedCount->fetch_add(1, std::memory_order_acq_rel) + 1 != count) return;
      if (auto self = weakSelf.lock()) self->didCompleteStoreSettingsRetrievalOperationsForContext(context);
    });
    operations.push_back(std::move(operation));
  }
  context->setStoreSettingsRetrievalOperations(operations);
  operationQueue().addOperations({operations.begin(), operations.end()}, false);
}

void OrvAppConfigService::didCompleteStoreSettingsRetrievalOperationsForContext(
    std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context) {
  const auto& operations = context->storeSettingsRetrievalOperations();
  if (!operations || operations->empty()) {
    ORV_LOG_ERROR("None of the store settings retrieval operations completed successfully");
    invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
        std::move(context), OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed, std::nullopt);
    return;
  }
  OrvAppConfigStoreSettingsDictionary settings;
  for (const auto& operation : *operations) {
    // A store that failed is left out silently: its failure was logged by its operation.
    const auto& record = operation->settingsRecord();
    if (!record || !operation->storeURL()) continue;
    settings[*operation->storeURL()] = record;
    auto payload = OrvAppConfigServicePayloadValidationContext::initWithResponseData(
        operation->responseData(), operation->varnelSignatureHeader(), record->notValidBefore(), record->notValidAfter());
    if (context->traceRecorder()) {
      const auto url = operation->appConfigRequestURL();
      payload->setSourceURL(url ? std::optional(url->absoluteString()) : std::nullopt);
    }
    context->addPayloadValidationContext(std::move(payload));
  }
  if (settings.empty()) recordStep(*context, "stores", false, "no store gave a usable answer; each store's query above says why");
  context->setStoreSettings(std::move(settings));
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  asyncValidatePayloadsForContext(context, [weakSelf, context](OrvPayloadValidationStatus status, std::optional<OrvError> error) {
    if (auto self = weakSelf.lock()) self->didValidateSettingsRetrievalPayloadsForContext(context, status, std::move(error));
  });
}

void OrvAppConfigService::didValidateSettingsRetrievalPayloadsForContext(
    std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context, OrvPayloadValidationStatus status,
    std::optional<OrvError> error) {
  if (status != OrvPayloadValidationStatusSuccess) {
    ORV_LOG_INFO("Failed to validate the app config payload with status %@ - invoking completion block",
                 descriptionForPayloadValidationStatus(status));
    invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
        std::move(context), OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed, std::move(error));
    return;
  }
  ORV_LOG_INFO("Successfully validated the payload - validating store responses map to store requests");
  if (!doRequestedStoreURLsMapToResponseStoreURLsForContext(*context)) {
    ORV_LOG_ERROR("Mismatched store response was found for store request - failing this request");
    recordStep(*context, "store match", false, "an answer names another store than the one it was asked for");
    invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
        std::move(context), OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed, std::nullopt);
    return;
  }
  if (!doesRequestedChannelNameMapToResponseChannelNameForContext(*context)) {
    ORV_LOG_ERROR("Mismatched channel name was found - failing this request");
    recordStep(*context, "channel match", false,
               "an answer is for another channel than \"" + context->channelName().value_or("") + "\"");
    invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
        std::move(context), OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed, std::nullopt);
    return;
  }
  invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(std::move(context), OrvAppConfigServiceCompletionStatusSuccess,
                                                               std::nullopt);
}

bool OrvAppConfigService::doRequestedStoreURLsMapToResponseStoreURLsForContext(
    const OrvAppConfigServiceSettingsRetrievalContext& context) {
  const auto& settings = context.storeSettings();
  if (!settings || settings->empty()) return false;
  for (const auto& [requestedURL, record] : *settings) {
    const auto name = record && record->url() ? record->url()->name() : std::optional<std::string>{};
    const auto responseURL = name ? OrvURL::URLWithString(*name) : std::nullopt;
    if (!OrvAppConfigServiceUtils::requestedStoreURL(requestedURL, responseURL)) {
      ORV_LOG_ERROR("Found a mismatched request URL = %@ with response URL = %@", requestedURL, responseURL);
      return false;
    }
  }
  return true;
}

bool OrvAppConfigService::doesRequestedChannelNameMapToResponseChannelNameForContext(
    const OrvAppConfigServiceSettingsRetrievalContext& context) {
  const auto& requested = context.channelName();
  // Without a requested channel, the answers' channels are not looked at.
  if (!requested) return true;
  if (!context.storeSettings()) return true;
  for (const auto& [storeURL, record] : *context.storeSettings()) {
    const auto channel = record ? record->settingsChannel() : nullptr;
    // Exact and case-sensitive: beta is not Beta.
    if (!channel || channel->channelName() != requested) return false;
  }
  return true;
}

void OrvAppConfigService::invokeCompletionBlockOnMainThreadForSettingsRetrievalContext(
    std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> context, OrvAppConfigServiceCompletionStatus status,
    std::optional<OrvError> error) {
  endAtomicWorkflow();
  if (!context->completionBlock()) return;
  OrvMainQueue::dispatchAsync([context = std::move(context), status, error = std::move(error)] {
    deliverTrace(context->traceRecorder(), status, error);
    // Read when the task runs, and only handed out with success.
    auto settings = status == OrvAppConfigServiceCompletionStatusSuccess ? context->storeSettings() : std::nullopt;
    context->completionBlock()(status, std::move(settings), error);
  });
}
