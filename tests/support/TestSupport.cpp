#include "TestSupport.h"

#include <thread>

#include <gtest/gtest.h>

#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvOperationQueue.h"

namespace orv::test {

namespace {

class FakeDataTask : public OrvURLSessionDataTask {
 public:
  FakeDataTask(std::shared_ptr<FakeURLSession::Shared> shared, OrvURLRequest request,
               OrvURLSessionDataTaskCompletionHandler handler)
      : shared_(std::move(shared)), request_(std::move(request)), handler_(std::move(handler)) {}

  void resume() override {
    if (started_.exchange(true)) return;
    std::unique_lock lock(shared_->mutex);
    shared_->requests.push_back(request_);
    lock.unlock();
    FakeResponse response = shared_->responder(request_);
    auto http = response.statusCode == 0 ? nullptr
                                         : std::make_shared<const OrvHTTPURLResponse>(request_.URL(), response.statusCode,
                                                                                      std::move(response.headers));
    finish(std::move(response.body), std::move(http), std::move(response.error));
  }
  void cancel() override { finish(std::nullopt, nullptr, OrvError(OrvURLErrorDomain, OrvURLErrorCancelled)); }
  std::uint64_t taskIdentifier() const override { return 1; }

 private:
  void finish(std::optional<OrvData> body, std::shared_ptr<const OrvHTTPURLResponse> response, std::optional<OrvError> error) {
    if (done_.exchange(true)) return;
    orv::detail::dispatchToWorkerPool(
        [handler = std::move(handler_), body = std::move(body), response = std::move(response),
         error = std::move(error)]() mutable { handler(std::move(body), std::move(response), std::move(error)); });
  }
  std::shared_ptr<FakeURLSession::Shared> shared_;
  OrvURLRequest request_;
  OrvURLSessionDataTaskCompletionHandler handler_;
  std::atomic<bool> started_{false}, done_{false};
};

}  // namespace

std::shared_ptr<OrvURLSessionDataTask> FakeURLSession::dataTaskWithRequest(
    const OrvURLRequest& request, OrvURLSessionDataTaskCompletionHandler completionHandler) {
  return std::make_shared<FakeDataTask>(shared_, request, std::move(completionHandler));
}

void LogCollector::logWithModule(std::string_view, std::int64_t logLevel, std::string_view fileName,
                                 std::string_view functionName, std::int64_t, std::string_view message) {
  std::lock_guard lock(mutex_);
  lines_.push_back({logLevel, std::string(fileName), std::string(functionName), std::string(message)});
}

bool pollUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout; !predicate();
       std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

namespace {

template <typename Result, typename Start>
Delivered<Result> deliver(Start start, std::chrono::milliseconds timeout) {
  Capture<OrvAppConfigServiceCompletionStatus, Result, std::optional<OrvError>> capture;
  start(capture.block());
  EXPECT_EQ(capture.calls, 0) << "delivered before the entry point returned";
  EXPECT_TRUE(capture.wait(timeout));
  EXPECT_EQ(capture.calls, 1);
  EXPECT_TRUE(capture.onMainQueue);
  auto& [status, result, error] = capture.values;
  return {status, std::move(result), std::move(error)};
}

}  // namespace

Delivered<std::shared_ptr<OrvAppConfigAutoDiscoverRecord>> discover(OrvAppConfigService& service,
                                                                    std::optional<std::string> input, std::uint64_t hostType) {
  return deliver<std::shared_ptr<OrvAppConfigAutoDiscoverRecord>>(
      [&](auto block) { service.asyncStartAutodiscoveryForUserInput(std::move(input), hostType, std::move(block)); },
      std::chrono::seconds(20));
}

Delivered<std::optional<OrvAppConfigStoreSettingsDictionary>> retrieve(OrvAppConfigService& service,
                                                                       OrvAppConfigStoreURLSet stores,
                                                                       std::optional<std::string> channel, std::uint64_t platform,
                                                                       std::chrono::milliseconds timeout) {
  return deliver<std::optional<OrvAppConfigStoreSettingsDictionary>>(
      [&](auto block) {
        service.asyncStartSettingsRetrievalForStoreUrls(std::move(stores), 0, platform, std::move(channel), std::move(block));
      },
      timeout);
}

DiscoveryHostsOverride::DiscoveryHostsOverride(const std::string& production, std::optional<std::string> staging) {
  OrvAppConfigDiscoveryHosts::setProductionHost(production);
  OrvAppConfigDiscoveryHosts::setStagingHost(staging.value_or(production));
}

DiscoveryHostsOverride::~DiscoveryHostsOverride() {
  OrvAppConfigDiscoveryHosts::setProductionHost(std::nullopt);
  OrvAppConfigDiscoveryHosts::setStagingHost(std::nullopt);
}

}  // namespace orv::test
