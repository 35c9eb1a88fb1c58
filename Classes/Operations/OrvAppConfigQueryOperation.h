#pragma once
// One GET against the discovery service as one cancellable operation. Owns what the three queries
// share: request and headers, the good-answer rule (status 200 with a body, nothing else), capture of
// the signature header and body for later verification, the completion status and the log lines.
// A subclass supplies the URL, a friendly name, the parsing of a 200 body and whether answers are signed.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "OrvAppConfigRequestTrace.h"
#include "OrvHttpHeaderProviderServiceProtocol.h"
#include "OrvUrlSessionTaskOperationObjC.h"

using OrvAppConfigQueryOperationCompletionStatus = std::uint64_t;
inline constexpr OrvAppConfigQueryOperationCompletionStatus OrvAppConfigQueryOperationCompletionStatusSuccess = 0;
inline constexpr OrvAppConfigQueryOperationCompletionStatus OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl = 1;
inline constexpr OrvAppConfigQueryOperationCompletionStatus OrvAppConfigQueryOperationCompletionStatusInvalidResponse = 2;
inline constexpr OrvAppConfigQueryOperationCompletionStatus OrvAppConfigQueryOperationCompletionStatusFailedToParseRecords = 3;
inline constexpr OrvAppConfigQueryOperationCompletionStatus OrvAppConfigQueryOperationCompletionStatusCancelled = 4;

// Name of the response header that carries the detached signature.
inline constexpr const char* OrvAppConfigVarnelSignatureHeaderName = "Varnel-Signature";

class OrvAppConfigQueryOperation : public OrvUrlSessionTaskOperationObjC {
 public:
  OrvAppConfigQueryOperation(std::shared_ptr<OrvURLSession> urlSession, std::uint64_t hostType,
                             std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService);

  static std::string descriptionForCompletionStatus(OrvAppConfigQueryOperationCompletionStatus status);

  // Read these only after the operation has finished.
  const std::optional<std::string>& varnelSignatureHeader() const noexcept { return varnelSignatureHeader_; }
  void setVarnelSignatureHeader(std::optional<std::string> header) { varnelSignatureHeader_ = std::move(header); }
  const std::optional<OrvData>& responseData() const noexcept { return responseData_; }
  void setResponseData(std::optional<OrvData> data) { responseData_ = std::move(data); }
  const std::shared_ptr<OrvHttpHeaderProviderServiceProtocol>& httpHeaderProviderService() const noexcept {
    return httpHeaderProviderService_;
  }
  std::uint64_t hostType() const noexcept { return hostType_; }
  OrvAppConfigQueryOperationCompletionStatus completionStatus() const noexcept { return completionStatus_; }
  void setCompletionStatus(OrvAppConfigQueryOperationCompletionStatus status) { completionStatus_ = status; }

  void start() override;

  // Records the query as a step of the request's trace, under this name; nothing is recorded without.
  void setTraceRecorder(std::shared_ptr<orv::detail::RequestTraceRecorder> recorder, std::string stepName) {
    traceRecorder_ = std::move(recorder);
    traceStepName_ = std::move(stepName);
  }

  // What a subclass supplies.
  virtual std::optional<OrvURL> appConfigRequestURL();
  virtual std::string appConfigQueryOperationFriendlyName() const;
  virtual bool parseHttp200ResponseData(const OrvData& responseData, std::optional<OrvError>* error);
  virtual bool willRequireVarnelSignatureValidation() const { return true; }

  void coreStart();
  void didCompleteUrlTaskWithData(std::optional<OrvData> data, std::shared_ptr<const OrvHTTPURLResponse> response,
                                  std::optional<OrvError> error);
  // The single exit: every path ends here exactly once.
  void completeOperationWithStatus(OrvAppConfigQueryOperationCompletionStatus status, std::optional<OrvError> error);

 private:
  std::optional<std::string> varnelSignatureHeader_;
  std::optional<OrvData> responseData_;
  std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService_;
  std::uint64_t hostType_;
  OrvAppConfigQueryOperationCompletionStatus completionStatus_ = OrvAppConfigQueryOperationCompletionStatusSuccess;
  void recordTraceStep(OrvAppConfigQueryOperationCompletionStatus status, const std::optional<OrvError>& error);

  // Claimed by the first completion; a cancel racing with the answer finds it taken and returns.
  std::atomic<bool> completed_{false};
  std::shared_ptr<orv::detail::RequestTraceRecorder> traceRecorder_;
  std::string traceStepName_;
  std::chrono::steady_clock::time_point traceBegan_{};
  std::optional<std::string> tracedURL_;
  std::optional<std::int64_t> tracedHTTPStatus_;
  std::size_t tracedBodyBytes_ = 0;
};
