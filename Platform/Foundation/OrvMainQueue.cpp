#include "OrvMainQueue.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace orv::detail {
namespace {

thread_local int mainQueueDepth = 0;

struct MainQueueScope {
  MainQueueScope() { ++mainQueueDepth; }
  ~MainQueueScope() { --mainQueueDepth; }
  MainQueueScope(const MainQueueScope&) = delete;
  MainQueueScope& operator=(const MainQueueScope&) = delete;
};

// An exception thrown by a task (a host's completion block) is the host's: it leaves the drain, run,
// runUntil or bridged call that ran the task. The task was taken off the queue before it ran, so the
// queue stays intact and the next call carries on with the following task.
void runTask(const OrvMainQueue::Task& task) {
  MainQueueScope scope;
  if (task) task();
}

class MainQueue {
 public:
  // Never destroyed: tasks may be dispatched from worker threads while the process exits.
  static MainQueue& shared() {
    static MainQueue* const queue = new MainQueue;
    return *queue;
  }

  void dispatch(OrvMainQueue::Task task) {
    // Forwarding happens under forwardMutex_ so that tasks reach a bridge in the order they were
    // queued, including those handed over by setBridge; it is recursive for a bridge that runs a
    // task at once and the task dispatches again.
    std::lock_guard forward(forwardMutex_);
    OrvMainQueue::Bridge bridge;
    {
      std::unique_lock lock(mutex_);
      if (!bridge_) {
        tasks_.push_back(std::move(task));
        // Woken after the unlock: a main thread woken under the lock would only block again on it.
        lock.unlock();
        available_.notify_all();
        return;
      }
      bridge = bridge_;
    }
    forwardTo(bridge, std::move(task));
  }

  void setBridge(OrvMainQueue::Bridge bridge) {
    std::lock_guard forward(forwardMutex_);
    std::deque<OrvMainQueue::Task> queued;
    {
      std::lock_guard lock(mutex_);
      bridge_ = bridge;
      if (bridge_) queued.swap(tasks_);
    }
    for (auto& task : queued) forwardTo(bridge, std::move(task));
  }

  std::size_t drain() {
    std::size_t count = 0;
    while (auto task = take()) {
      runTask(*task);
      ++count;
    }
    return count;
  }

  bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (predicate && predicate()) return true;
    for (;;) {
      OrvMainQueue::Task task;
      {
        std::unique_lock lock(mutex_);
        if (!available_.wait_until(lock, deadline, [this] { return !tasks_.empty(); })) break;
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      runTask(task);
      if (predicate && predicate()) return true;
    }
    return predicate ? predicate() : false;
  }

  void run() {
    for (;;) {
      OrvMainQueue::Task task;
      {
        std::unique_lock lock(mutex_);
        available_.wait(lock, [this] { return stopRequested_ || !tasks_.empty(); });
        if (stopRequested_) {
          stopRequested_ = false;
          return;
        }
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      runTask(task);
    }
  }

  void stop() {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
    available_.notify_all();
  }

 private:
  // The wrapper marks the host's thread as the main queue while the task runs.
  static void forwardTo(const OrvMainQueue::Bridge& bridge, OrvMainQueue::Task task) {
    try {
      bridge([task = std::move(task)] { runTask(task); });
    } catch (...) {
      // The host's loop refused the task; the dispatching thread is not the place to report it.
    }
  }

  std::optional<OrvMainQueue::Task> take() {
    std::lock_guard lock(mutex_);
    if (tasks_.empty()) return std::nullopt;
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    return task;
  }

  std::recursive_mutex forwardMutex_;
  std::mutex mutex_;
  std::condition_variable available_;
  std::deque<OrvMainQueue::Task> tasks_;
  OrvMainQueue::Bridge bridge_;
  bool stopRequested_ = false;
};

}  // namespace
}  // namespace orv::detail

void OrvMainQueue::dispatchAsync(Task task) { orv::detail::MainQueue::shared().dispatch(std::move(task)); }
std::size_t OrvMainQueue::drain() { return orv::detail::MainQueue::shared().drain(); }
bool OrvMainQueue::runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  return orv::detail::MainQueue::shared().runUntil(predicate, timeout);
}
void OrvMainQueue::run() { orv::detail::MainQueue::shared().run(); }
void OrvMainQueue::stop() { orv::detail::MainQueue::shared().stop(); }
void OrvMainQueue::setBridge(Bridge bridge) { orv::detail::MainQueue::shared().setBridge(std::move(bridge)); }
bool OrvMainQueue::isCurrent() noexcept { return orv::detail::mainQueueDepth > 0; }
