#pragma once
// Waiting helpers for the foundation tests: they wait on conditions, never on time.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace orv::test {

// A latch-like flag/counter that threads bump and the test waits on, with a generous bound so a
// broken implementation fails instead of hanging.
class Signal {
 public:
  // Notifies under the lock: a waiter may destroy the signal as soon as it sees the count.
  void notify(int by = 1) {
    std::lock_guard lock(mutex_);
    count_ += by;
    cv_.notify_all();
  }
  bool waitFor(int atLeast, std::chrono::seconds bound = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, bound, [&] { return count_ >= atLeast; });
  }
  int count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  int count_ = 0;
};

}  // namespace orv::test
