#include "OrvAppConfigQueryOperation.h"

#include "OrvAppConfigServiceLogger.h"

OrvAppConfigQueryOperation::OrvAppConfigQueryOperation(
    std::shared_ptr<OrvURLSession> urlSession, std::uint64_t hostType,
    std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService)
    : OrvUrlSessionTaskOperationObjC(std::move(urlSession)),
      httpHeaderProviderService_(std::move(httpHeaderProviderService)),
      hostType_(hostType) {}

std::string OrvAppConfigQueryOperation::descriptionForCompletionStatus(OrvAppConfigQueryOperationCompletionStatus status) {
  switch (status) {
    case OrvAppConfigQueryOperationCompletionStatusSuccess:
      return "OrvAppConfigQueryOperationCompletionStatusSuccess";
    case OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl:
      return "OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl";
    case OrvAppConfigQueryOperationCompletionStatusInvalidResponse:
      return "OrvAppConfigQueryOperationCompletionStatusInvalidResponse";
    case OrvAppConfigQueryOperationCompletionStatusFailedToParseRecords:
      return "OrvAppConfigQueryOperationCompletionStatusFailedToParseRecords";
    case OrvAppConfigQueryOperationCompletionStatusCancelled:
      return "OrvAppConfigQueryOperationCompletionStatusCancelled";
    default:
      return orv::detail::formatPlatformString("Unknown OrvAppConfigQueryOperationCompletionStatus of %lu",
                                               std::array{OrvDescription(status)});
  }
}

std::optional<OrvURL> OrvAppConfigQueryOperation::appConfigRequestURL() { return std::nullopt; }

std::string OrvAppConfigQueryOperation::appConfigQueryOperationFriendlyName() const { return "VarnelAppConfigQueryOperation"; }

bool OrvAppConfigQueryOperation::parseHttp200ResponseData(const OrvData&, std::optional<OrvError>*) { return false; }

void OrvAppConfigQueryOperation::start() {
  if (isCancelled()) {
    ORV_LOG_INFO("Operation for %@ was cancelled before start.", appConfigQueryOperationFriendlyName());
    completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusCancelled, std::nullopt);
    return;
  }
  moveToExecutingState();
  if (traceRecorder_) traceBegan_ = traceRecorder_->now();
  coreStart();
}

void OrvAppConfigQueryOperation::coreStart() {
  const auto url = appConfigRequestURL();
  if (!url) {
    ORV_LOG_ERROR("Unable to build URL for %@", appConfigQueryOperationFriendlyName());
    completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl, std::nullopt);
    return;
  }
  if (traceRecorder_) tracedURL_ = url->absoluteString();
  OrvURLRequest request(*url);
  if (httpHeaderProviderService_) {
    // Monitoring headers first: on a name present in both, the transaction header's value is sent.
    request.setHeaders(httpHeaderProviderService_->httpMonitoringHeaders());
    request.setHeaders(httpHeaderProviderService_->uniqueTransactionIdHeader());
  }
  // The handler holds the operation weakly: a pending request must not keep it alive.
  std::weak_ptr<OrvAppConfigQueryOperation> weakSelf = std::static_pointer_cast<OrvAppConfigQueryOperation>(shared_from_this());
  const auto session = urlSession();
  if (!session) {
    // A service built without a session cannot reach the network; say so instead of crashing.
    const OrvError noSession(OrvURLErrorDomain, OrvURLErrorNoSession,
                             {{OrvLocalizedDescriptionKey, "No URL session was provided"}});
    ORV_LOG_ERROR("URL request for %@ failed with error: %@", appConfigQueryOperationFriendlyName(), noSession);
    completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusInvalidResponse, noSession);
    return;
  }
  auto task = session->dataTaskWithRequest(
      request,
      [weakSelf](std::optional<OrvData> data, std::shared_ptr<const OrvHTTPURLResponse> response, std::optional<OrvError> error) {
        auto self = weakSelf.lock();
        if (!self) return;
        try {
          self->didCompleteUrlTaskWithData(std::move(data), std::move(response), std::move(error));
        } catch (...) {
          // Handling the answer ran out of memory. The operation still owes its workflow an end, and
          // one that says why, rather than none.
          self->completeOperationWithStatus(
              OrvAppConfigQueryOperationCompletionStatusInvalidResponse,
              OrvError(OrvURLErrorDomain, OrvURLErrorOutOfMemory,
                       {{OrvLocalizedDescriptionKey, "The response could not be handled: out of memory"}}));
        }
      });
  setSessionTaskOperationHandle(task);
  ORV_LOG_INFO("Starting URL request for %@", appConfigQueryOperationFriendlyName());
  if (auto stored = sessionTaskOperationHandle()) stored->resume();
}

void OrvAppConfigQueryOperation::didCompleteUrlTaskWithData(std::optional<OrvData> data,
                                                            std::shared_ptr<const OrvHTTPURLResponse> response,
                                                            std::optional<OrvError> error) {
  const std::int64_t statusCode = response ? response->statusCode() : 0;
  if (traceRecorder_ && response) tracedHTTPStatus_ = statusCode;
  if (traceRecorder_ && data) tracedBodyBytes_ = data->size();
  // A 200 with a body is good even if an error came with it; nothing else is.
  if (data && statusCode == 200) {
    std::optional<OrvError> parseError;
    if (parseHttp200ResponseData(*data, &parseError)) {
      ORV_LOG_INFO("Response data was successfully parsed");
      if (willRequireVarnelSignatureValidation()) {
        ORV_LOG_INFO("Saving Varnel-Signature header and response data for later validation");
        setVarnelSignatureHeader(response->valueForHTTPHeaderField(OrvAppConfigVarnelSignatureHeaderName));
        setResponseData(std::move(data));
      }
      completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusSuccess, std::nullopt);
    } else {
      ORV_LOG_ERROR("Failed to parse response data - error = %@", parseError);
      completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusFailedToParseRecords, std::move(parseError));
    }
    return;
  }
  if (error) {
    ORV_LOG_ERROR("URL request for %@ failed with error: %@", appConfigQueryOperationFriendlyName(), *error);
  } else {
    ORV_LOG_ERROR("URL request for %@ failed with status code: %ld", appConfigQueryOperationFriendlyName(), statusCode);
  }
  completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatusInvalidResponse, std::move(error));
}

void OrvAppConfigQueryOperation::completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatus status,
                                                             std::optional<OrvError> error) {
  // A cancelled task and a late answer could both try to finish the operation; only the first counts.
  // The completion block may run on this very thread (and move the workflow on from there), so no lock
  // or once-flag is held while it does.
  if (completed_.exchange(true, std::memory_order_acq_rel)) return;
  if (status == OrvAppConfigQueryOperationCompletionStatusSuccess) {
    ORV_LOG_INFO("Completing operation with status OrvAppConfigQueryOperationCompletionStatusSuccess");
  } else {
    ORV_LOG_ERROR("Completing operation with status=%@ and error=%@", descriptionForCompletionStatus(status), error);
  }
  if (traceRecorder_) recordTraceStep(status, error);
  setCompletionStatus(status);
  setCompletionError(std::move(error));
  coreCompleteOperation();
}

void OrvAppConfigQueryOperation::recordTraceStep(OrvAppConfigQueryOperationCompletionStatus status,
                                                 const std::optional<OrvError>& error) {
  OrvAppConfigTraceStep step;
  step.name = traceStepName_;
  step.passed = status == OrvAppConfigQueryOperationCompletionStatusSuccess;
  step.url = tracedURL_;
  step.httpStatus = tracedHTTPStatus_;
  step.error = error;
  std::string detail;
  if (tracedHTTPStatus_) {
    detail = "HTTP " + std::to_string(*tracedHTTPStatus_) + ", " + std::to_string(tracedBodyBytes_) + " bytes";
  } else if (status == OrvAppConfigQueryOperationCompletionStatusCancelled) {
    detail = "cancelled before an answer";
  } else if (status == OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl) {
    detail = "no URL could be built from the input";
  } else {
    detail = "no HTTP answer";
  }
  if (step.passed && willRequireVarnelSignatureValidation()) {
    detail += varnelSignatureHeader() ? ", signature header present" : ", no Varnel-Signature header";
  } else if (!step.passed && tracedHTTPStatus_) {
    detail += *tracedHTTPStatus_ == 200 ? ", body not understood" : ", only 200 is an answer";
  }
  step.detail = detail + " -> " + descriptionForCompletionStatus(status);
  traceRecorder_->addStep(std::move(step), traceBegan_);
}
