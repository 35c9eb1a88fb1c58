#pragma once
// Helpers of the emulator and network tests: one set of generated material per test process, and a
// data-task completion that can be waited on.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "EmulatorHarness.h"
#include "OrvDiscoveryEmulator.h"
#include "OrvURLSession.h"
#include "TestSupport.h"

namespace orv::test {

// One set of material per test process; key generation is the slow part.
inline const std::string& generatedMaterialDir() {
  static const TemporaryDirectory directory;
  static const std::string dir = [] {
    std::string error;
    if (!orv::emulator::generateMaterial(directory.path().string(), &error)) ADD_FAILURE() << "material: " << error;
    return directory.path().string();
  }();
  return dir;
}

inline std::unique_ptr<orv::emulator::DiscoveryEmulator> startEmulator(orv::emulator::EmulatorOptions options = {}) {
  if (options.materialDir.empty()) options.materialDir = generatedMaterialDir();
  std::string error;
  auto emulator = orv::emulator::DiscoveryEmulator::start(options, &error);
  EXPECT_TRUE(emulator) << error;
  return emulator;
}

// What one data task delivered, and how often.
struct TaskOutcome {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  std::thread::id thread;
  std::optional<OrvData> data;
  std::shared_ptr<const OrvHTTPURLResponse> response;
  std::optional<OrvError> error;

  static std::shared_ptr<TaskOutcome> make() { return std::make_shared<TaskOutcome>(); }

  static OrvURLSessionDataTaskCompletionHandler handler(const std::shared_ptr<TaskOutcome>& outcome) {
    return [outcome](std::optional<OrvData> data, std::shared_ptr<const OrvHTTPURLResponse> response,
                     std::optional<OrvError> error) {
      std::lock_guard lock(outcome->mutex);
      outcome->data = std::move(data);
      outcome->response = std::move(response);
      outcome->error = std::move(error);
      outcome->thread = std::this_thread::get_id();
      ++outcome->calls;
      outcome->changed.notify_all();
    };
  }

  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, timeout, [this] { return calls > 0; });
  }

  int callCount() {
    std::lock_guard lock(mutex);
    return calls;
  }

  std::int64_t status() {
    std::lock_guard lock(mutex);
    return response ? response->statusCode() : 0;
  }
};

inline OrvURLRequest requestFor(const std::string& url) {
  auto parsed = OrvURL::URLWithString(url);
  EXPECT_TRUE(parsed) << url;
  return OrvURLRequest(parsed ? *parsed : *OrvURL::URLWithString("https://invalid.invalid/"));
}

// Runs one request to its end; the outcome has been delivered when this returns (or the wait failed).
inline std::shared_ptr<TaskOutcome> fetch(OrvURLSession& session, const OrvURLRequest& request) {
  auto outcome = TaskOutcome::make();
  auto task = session.dataTaskWithRequest(request, TaskOutcome::handler(outcome));
  if (!task) {
    ADD_FAILURE() << "no task";
    return outcome;
  }
  task->resume();
  EXPECT_TRUE(outcome->wait()) << request.URL().absoluteString();
  return outcome;
}

inline std::shared_ptr<TaskOutcome> fetch(OrvURLSession& session, const std::string& url) {
  return fetch(session, requestFor(url));
}

}  // namespace orv::test
