#pragma once
// What one request did, for the people who have to say why discovery failed on a user's machine: every
// URL asked with its HTTP status or transport error, every check with the rule that refused, the
// fallback probe, and the time each step took. Recorded only for a service that has a diagnostics
// delegate; statuses, errors and log lines are the same with or without one.
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "OrvAppConfigServiceTypes.h"
#include "OrvError.h"

struct OrvAppConfigTraceStep {
  // "auto-discover query", "fallback probe", "settings query", "signing certificate", "signature",
  // "validity dates", "domain match", "store match", "channel match" or "parameters".
  std::string name;
  bool passed = false;
  // The URL asked (queries) or the URL whose answer was checked (signatures, dates).
  std::optional<std::string> url;
  std::optional<std::int64_t> httpStatus;
  // The verifier's result code when a signature rule refused the payload, with its name.
  std::optional<std::int64_t> rule;
  std::optional<std::string> ruleName;
  // The transport or validation error, as the library saw it.
  std::optional<OrvError> error;
  // One line in plain words.
  std::string detail;
  // Since the request started, and how long the step took.
  std::chrono::microseconds startedAfter{0};
  std::chrono::microseconds duration{0};
};

class OrvAppConfigRequestTrace {
 public:
  enum class Kind { autoDiscovery, settingsRetrieval };

  Kind kind = Kind::autoDiscovery;
  // The user input, or the store URLs asked for.
  std::string subject;
  std::vector<OrvAppConfigTraceStep> steps;
  OrvAppConfigServiceCompletionStatus status = OrvAppConfigServiceCompletionStatusSuccess;
  std::optional<OrvError> error;
  std::chrono::microseconds duration{0};

  // One line per step, indented under a headline with the request and its status.
  std::string explanation() const;
  // The same as one JSON object: kind, subject, status, statusName, error, durationUs and
  // steps (step, passed, url, httpStatus, rule, ruleName, error, detail, startUs, durationUs).
  std::string JSONString() const;
};

class OrvAppConfigDiagnosticsDelegate {
 public:
  virtual ~OrvAppConfigDiagnosticsDelegate() = default;
  // On the main queue, in the same task as the request's completion block and just before it. A request
  // that ends without a completion (the service was released) ends without a trace as well.
  virtual void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) = 0;
};

namespace orv::detail {

// Collects one request's steps. Steps arrive from the queue's and the verifier's threads at once.
class RequestTraceRecorder {
 public:
  using Clock = std::chrono::steady_clock;

  RequestTraceRecorder(OrvAppConfigRequestTrace::Kind kind, std::string subject,
                       std::shared_ptr<OrvAppConfigDiagnosticsDelegate> delegate);

  Clock::time_point now() const { return Clock::now(); }
  // A step that began at `began` and ends now.
  void addStep(OrvAppConfigTraceStep step, Clock::time_point began);
  // The finished trace, handed to the delegate on the main queue by the caller.
  std::shared_ptr<const OrvAppConfigRequestTrace> finish(OrvAppConfigServiceCompletionStatus status,
                                                         const std::optional<OrvError>& error);
  const std::shared_ptr<OrvAppConfigDiagnosticsDelegate>& delegate() const noexcept { return delegate_; }

 private:
  std::shared_ptr<OrvAppConfigDiagnosticsDelegate> delegate_;
  Clock::time_point started_;
  std::mutex mutex_;
  OrvAppConfigRequestTrace trace_;
};

}  // namespace orv::detail
