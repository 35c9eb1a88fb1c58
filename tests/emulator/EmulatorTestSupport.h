#pragma once
// Helpers of the emulator and network tests: one set of generated material per test process, and a
// data-task completion that can be waited on.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "OrvDiscoveryEmulator.h"
#include "OrvURLSession.h"

namespace orv::test {

class GeneratedMaterial {
 public:
  static const std::string& dir() {
    static GeneratedMaterial material;
    return material.dir_;
  }

 private:
  GeneratedMaterial() {
    std::string pattern = (std::filesystem::temp_directory_path() / "orv-emulator-test-XXXXXX").string();
    if (mkdtemp(pattern.data())) dir_ = pattern;
    std::string error;
    if (dir_.empty() || !orv::emulator::generateMaterial(dir_, &error)) {
      ADD_FAILURE() << "cannot generate emulator material: " << error;
    }
  }
  ~GeneratedMaterial() {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }
  std::string dir_;
};

inline std::unique_ptr<orv::emulator::DiscoveryEmulator> startEmulator(orv::emulator::EmulatorOptions options = {}) {
  if (options.materialDir.empty()) options.materialDir = GeneratedMaterial::dir();
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

// Waits until pred holds, polling; false after the timeout.
template <typename Predicate>
bool eventually(Predicate pred, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace orv::test
