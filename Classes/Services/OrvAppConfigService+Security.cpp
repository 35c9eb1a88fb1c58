// The one place where signatures are enforced: completeness, a fresh signing certificate, every
// payload verified at once, results combined, and only then the validity dates.
#include <atomic>

#include "OrvAppConfigGetSigningCertificateOperation.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvSecurityUtilsService.h"
#include "OrvString.h"

namespace {
constexpr const char* kRequiredIssuerName = "Varnel Systems, Inc.";

void recordSignatureStep(const OrvAppConfigServiceContext& context, const OrvAppConfigServicePayloadValidationContext& payload,
                         OrvPayloadValidationStatus status, const std::optional<OrvError>& error,
                         orv::detail::RequestTraceRecorder::Clock::time_point began) {
  const auto& recorder = context.traceRecorder();
  if (!recorder) return;
  OrvAppConfigTraceStep step;
  step.name = "signature";
  step.passed = status == OrvPayloadValidationStatusSuccess;
  step.url = payload.sourceURL();
  step.error = error;
  if (step.passed) {
    step.detail = "verified with the signing certificate";
  } else if (error && error->domain() == OrvSecurityUtilsErrorDomain) {
    step.rule = error->code();
    step.ruleName = OrvSecurityUtilsResultDescription(error->code());
    step.detail = "refused by the verifier";
  } else {
    step.detail = "refused: " + OrvAppConfigService::descriptionForPayloadValidationStatus(status);
  }
  recorder->addStep(std::move(step), began);
}
}  // namespace

void OrvAppConfigService::asyncValidatePayloadsForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                          PayloadValidationCompletionBlock completionBlock) {
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  asyncValidatePayloadSignaturesForContext(context, [weakSelf, context, completionBlock = std::move(completionBlock)](
                                                        OrvPayloadValidationStatus status, std::optional<OrvError> error) {
    if (status != OrvPayloadValidationStatusSuccess) {
      completionBlock(status, std::move(error));
      return;
    }
    // Dates only after every signature held. A service released meanwhile cannot vouch for them.
    auto self = weakSelf.lock();
    if (self && self->validateNotValidBeforeAndAfterDatesForContext(*context)) {
      completionBlock(OrvPayloadValidationStatusSuccess, std::nullopt);
    } else {
      completionBlock(OrvPayloadValidationStatusDateValidationFailed, std::nullopt);
    }
  });
}

void OrvAppConfigService::asyncValidatePayloadSignaturesForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                                   PayloadValidationCompletionBlock completionBlock) {
  const auto payloads = context->payloadValidationContexts();
  bool complete = !payloads.empty();
  for (const auto& payload : payloads) {
    // Only an absent value is missing; an empty one counts as present.
    if (!payload->varnelJWTHeader() || !payload->varnelJWTSignature() || !payload->responseData()) {
      complete = false;
      recordStep(*context, "signature", false,
                 !payload->varnelSignatureHeader() ? "the answer carries no Varnel-Signature header"
                 : !payload->responseData()        ? "the answer has no body"
                                            : "the Varnel-Signature header is not exactly two parts joined by one full stop",
                 payload->sourceURL());
    }
  }
  if (!complete) {
    ORV_LOG_ERROR("Payload validation has failed as there are no payloads to validate");
    completionBlock(OrvPayloadValidationStatusInvalidJWTParameters, std::nullopt);
    return;
  }
  ORV_LOG_INFO("Starting payload validation - fetching public certificate");
  asyncGetSigningCertificateForContext(std::move(context), std::move(completionBlock));
}

void OrvAppConfigService::asyncGetSigningCertificateForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                               PayloadValidationCompletionBlock completionBlock) {
  // Fetched afresh for every validation run, never cached: a rotated key takes effect at once.
  auto operation = OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(
      orvSecurityUtilsService(), urlSession(), context->hostType(), httpHeaderProviderService());
  operation->setTraceRecorder(context->traceRecorder(), "signing certificate");
  std::weak_ptr<OrvAppConfigService> weakSelf = weak_from_this();
  std::weak_ptr<OrvAppConfigGetSigningCertificateOperation> weakOperation = operation;
  operation->setCompletionBlock([weakSelf, weakOperation, context, completionBlock = std::move(completionBlock)] {
    auto self = weakSelf.lock();
    auto finished = weakOperation.lock();
    if (!self || !finished) return;
    self->didGetSigningCertificateForContext(context, finished->signingCertificate(), finished->completionError(),
                                             completionBlock);
  });
  operationQueue().addOperation(std::move(operation));
}

void OrvAppConfigService::didGetSigningCertificateForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                             OrvCertificateRef signingCertificate, std::optional<OrvError> error,
                                                             PayloadValidationCompletionBlock completionBlock) {
  if (!signingCertificate || error) {
    ORV_LOG_ERROR("Failed to get the verificate certificate with error=%@", error);
    completionBlock(OrvPayloadValidationStatusCertificateFetchFailed, std::move(error));
    return;
  }
  ORV_LOG_INFO("Successfully obtained public certificate - now validating the payloads");
  // What the verifications of this run share, held once: the starts run back to back on one thread
  // while the verifications wait, so each start should cost little.
  struct Run {
    std::weak_ptr<OrvAppConfigService> service;
    std::shared_ptr<OrvAppConfigServiceContext> context;
    PayloadValidationCompletionBlock completionBlock;
    std::size_t count = 0;
    // Verifications complete on the security service's threads and may overlap: the counter is atomic
    // so that exactly one completion, the last, moves on.
    std::atomic<std::size_t> completed{0};
  };
  const auto payloads = context->payloadValidationContexts();
  auto run = std::make_shared<Run>();
  run->service = weak_from_this();
  run->context = context;
  run->completionBlock = std::move(completionBlock);
  run->count = payloads.size();
  const auto& recorder = context->traceRecorder();
  for (const auto& payload : payloads) {
    const auto began = recorder ? recorder->now() : orv::detail::RequestTraceRecorder::Clock::time_point{};
    asyncValidateAppConfigPayloadForContext(
        payload, signingCertificate,
        [run, payload, began](OrvPayloadValidationStatus status, std::optional<OrvError> validationError) {
          recordSignatureStep(*run->context, *payload, status, validationError, began);
          payload->setValidationStatus(status);
          payload->setValidationError(std::move(validationError));
          if (run->completed.fetch_add(1, std::memory_order_acq_rel) + 1 != run->count) return;
          if (auto self = run->service.lock()) self->didCompletePayloadValidationForContext(run->context, run->completionBlock);
        });
  }
}

void OrvAppConfigService::asyncValidateAppConfigPayloadForContext(
    std::shared_ptr<OrvAppConfigServicePayloadValidationContext> payloadContext, OrvCertificateRef signingCertificate,
    PayloadValidationCompletionBlock completionBlock) {
  const auto& body = payloadContext->responseData();
  if (!body || !orv::detail::isValidUTF8(*body)) {
    ORV_LOG_ERROR("Payload validation failed as the response data could not be converted to a UTF-8 string");
    completionBlock(OrvPayloadValidationStatusInvalidJWTParameters, std::nullopt);
    return;
  }
  // The same for every payload, and read only.
  static const std::shared_ptr<const AdditionalCertificateValidationOptions> options = [] {
    auto made = std::make_shared<AdditionalCertificateValidationOptions>();
    made->setRequiredIssuerName(kRequiredIssuerName);
    return made;
  }();
  const auto& securityService = orvSecurityUtilsService();
  if (!securityService) {
    // Without a security service nothing can vouch for the payload.
    ORV_LOG_ERROR("Failed to validate the payload - error = %@", std::optional<OrvError>{});
    completionBlock(OrvPayloadValidationStatusPayloadValidationFailed, std::nullopt);
    return;
  }
  securityService->asyncValidateJWTWithJwtPayload(
      *body, payloadContext->varnelJWTHeader(), payloadContext->varnelJWTSignature(), std::move(signingCertificate), options,
      [completionBlock = std::move(completionBlock)](std::int64_t result, std::optional<OrvError> error) {
        if (result != 0) {
          ORV_LOG_ERROR("Failed to validate the payload - error = %@", error);
        } else {
          ORV_LOG_INFO("Successfully validate the payload");
        }
        completionBlock(result, std::move(error));
      });
}

void OrvAppConfigService::didCompletePayloadValidationForContext(std::shared_ptr<OrvAppConfigServiceContext> context,
                                                                 PayloadValidationCompletionBlock completionBlock) {
  OrvPayloadValidationStatus status = OrvPayloadValidationStatusSuccess;
  std::optional<OrvError> keptError;
  for (const auto& payload : context->payloadValidationContexts()) {
    if (payload->validationStatus() == OrvPayloadValidationStatusSuccess) continue;
    status = OrvPayloadValidationStatusPayloadValidationFailed;
    // The first failed payload, in context order, that carries an error.
    if (!keptError) keptError = payload->validationError();
  }
  completionBlock(status, std::move(keptError));
}

bool OrvAppConfigService::validateNotValidBeforeAndAfterDatesForContext(const OrvAppConfigServiceContext& context) const {
  ORV_LOG_INFO("Performing payload date validity check");
  const OrvDate now = currentDateProvider_ ? currentDateProvider_() : std::chrono::system_clock::now();
  for (const auto& payload : context.payloadValidationContexts()) {
    const auto& notValidBefore = payload->notValidBeforeDate();
    const auto& notValidAfter = payload->notValidAfterDate();
    if (!notValidBefore || !notValidAfter) continue;
    // Both ends belong to the period.
    if (now < *notValidBefore || now > *notValidAfter) {
      recordStep(context, "validity dates", false,
                 "valid from " + OrvDateISO8601String(*notValidBefore) + " to " + OrvDateISO8601String(*notValidAfter) +
                     ", but now is " + OrvDateISO8601String(now),
                 payload->sourceURL());
      ORV_LOG_ERROR(
          "Failing payload date validity check as NotValidBefore of %@ is after now or NotValidAfter of %@ is before now",
          *notValidBefore, *notValidAfter);
      return false;
    }
  }
  ORV_LOG_INFO("Payload date validation succeeded");
  recordStep(context, "validity dates", true, "every answer is within its validity period");
  return true;
}

std::string OrvAppConfigService::descriptionForPayloadValidationStatus(OrvPayloadValidationStatus status) {
  switch (status) {
    case OrvPayloadValidationStatusSuccess:
      return "OrvPayloadValidationStatusSuccess";
    case OrvPayloadValidationStatusInvalidJWTParameters:
      return "OrvPayloadValidationStatusInvalidJWTParameters";
    case OrvPayloadValidationStatusCertificateFetchFailed:
      return "OrvPayloadValidationStatusCertificateFetchFailed";
    case OrvPayloadValidationStatusPayloadValidationFailed:
      return "OrvPayloadValidationStatusPayloadValidationFailed";
    case OrvPayloadValidationStatusDateValidationFailed:
      return "OrvPayloadValidationStatusDateValidationFailed";
    default:
      return orv::detail::formatPlatformString("Unknown OrvPayloadValidationStatus of %ld", std::array{OrvDescription(status)});
  }
}
