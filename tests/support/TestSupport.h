#pragma once
// Fakes and helpers shared by the test folders.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigService.h"
#include "OrvFeatureFlagProviderProtocol.h"
#include "OrvHttpHeaderProviderServiceProtocol.h"
#include "OrvMainQueue.h"
#include "OrvSdkLogger.h"
#include "OrvSecurityServiceProtocol.h"
#include "OrvURLSession.h"

namespace orv::test {

// What a fake server answers: body, status (0 = no response at all), header fields, transport error.
struct FakeResponse {
  std::optional<OrvData> body;
  std::int64_t statusCode = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<OrvError> error;
};

// A session whose answers come from a function; completions run on the worker pool, like a real one.
class FakeURLSession : public OrvURLSession {
 public:
  using Responder = std::function<FakeResponse(const OrvURLRequest&)>;
  explicit FakeURLSession(Responder responder) : shared_(std::make_shared<Shared>(std::move(responder))) {}

  std::shared_ptr<OrvURLSessionDataTask> dataTaskWithRequest(const OrvURLRequest& request,
                                                             OrvURLSessionDataTaskCompletionHandler completionHandler) override;
  std::vector<OrvURLRequest> requests() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->requests;
  }

  struct Shared {
    Responder responder;
    std::mutex mutex;
    std::vector<OrvURLRequest> requests;
  };

 private:
  std::shared_ptr<Shared> shared_;
};

class StaticHeaderProvider : public OrvHttpHeaderProviderServiceProtocol {
 public:
  OrvHTTPHeaderDictionary monitoring, transaction;
  OrvHTTPHeaderDictionary httpMonitoringHeaders() override { return monitoring; }
  OrvHTTPHeaderDictionary uniqueTransactionIdHeader() override { return transaction; }
};

class FixedFeatureFlags : public OrvFeatureFlagProviderProtocol {
 public:
  FixedFeatureFlags(bool entireDomain, bool channels) : entireDomain_(entireDomain), channels_(channels) {}
  bool valueForFeatureFlagWithServiceName(std::string_view, std::string_view featureFlagName) override {
    return featureFlagName.ends_with("UseEntireDomainForURLDiscovery") ? entireDomain_ : channels_;
  }

 private:
  bool entireDomain_, channels_;
};

struct LogLine {
  std::int64_t level;
  std::string file;
  std::string function;
  std::string message;
};

// Collects log lines; install() makes it the library's delegate for the life of the object.
class LogCollector : public OrvSdkLoggerDelegate, public std::enable_shared_from_this<LogCollector> {
 public:
  static std::shared_ptr<LogCollector> install() {
    auto collector = std::make_shared<LogCollector>();
    OrvAppConfigService::setLoggerDelegate(collector);
    return collector;
  }
  void logWithModule(std::string_view module, std::int64_t logLevel, std::string_view fileName, std::string_view functionName,
                     std::int64_t lineNumber, std::string_view message) override;
  std::vector<LogLine> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

// Runs the main queue on this thread until the predicate holds; false after the timeout.
inline bool runMainQueueUntil(const std::function<bool()>& predicate,
                              std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  return OrvMainQueue::runUntil(predicate, timeout);
}

// Polls a condition that no main-queue task signals (a server's request log, say).
bool pollUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Captures what a completion block received, and whether on the main queue.
template <typename... Args>
struct Capture {
  std::atomic<int> calls{0};
  std::atomic<bool> onMainQueue{false};
  std::thread::id thread;
  std::tuple<Args...> values;
  auto block() {
    return [this](Args... args) {
      values = std::tuple<Args...>(std::move(args)...);
      onMainQueue = OrvMainQueue::isCurrent();
      thread = std::this_thread::get_id();
      ++calls;
    };
  }
  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return runMainQueueUntil([this] { return calls.load() > 0; }, timeout);
  }
};

using AutoDiscoveryCapture =
    Capture<OrvAppConfigServiceCompletionStatus, std::shared_ptr<OrvAppConfigAutoDiscoverRecord>, std::optional<OrvError>>;

// What one request's completion received.
template <typename Result>
struct Delivered {
  OrvAppConfigServiceCompletionStatus status = 99;
  Result result;
  std::optional<OrvError> error;
};

// Runs one request to its completion, and fails the test unless that completion came once, later, on the
// main queue: every delivery is asynchronous, refusals included.
Delivered<std::shared_ptr<OrvAppConfigAutoDiscoverRecord>> discover(OrvAppConfigService& service,
                                                                    std::optional<std::string> input, std::uint64_t hostType = 0);
Delivered<std::optional<OrvAppConfigStoreSettingsDictionary>> retrieve(
    OrvAppConfigService& service, OrvAppConfigStoreURLSet stores, std::optional<std::string> channel = std::nullopt,
    std::uint64_t platform = 0, std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Points both discovery hosts somewhere for the life of the object, then back to the defaults.
struct DiscoveryHostsOverride {
  explicit DiscoveryHostsOverride(const std::string& production, std::optional<std::string> staging = std::nullopt);
  ~DiscoveryHostsOverride();
};

}  // namespace orv::test
