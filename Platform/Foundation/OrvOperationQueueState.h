#pragma once
// The shared state behind an OrvOperationQueue. It outlives the queue object while operations it
// accepted are still unfinished, so that they run to their end and release themselves through it.
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "OrvOperation.h"

namespace orv::detail {

class OperationQueueState : public std::enable_shared_from_this<OperationQueueState> {
 public:
  // Accepts the operations not yet in any queue and not finished; returns those accepted.
  std::vector<std::shared_ptr<OrvOperation>> add(const std::vector<std::shared_ptr<OrvOperation>>& operations);
  void operationFinished(OrvOperation* operation);

  void cancelAll();
  void cancelWaiting();
  void waitUntilAllFinished();
  void waitUntilFinished(const std::vector<std::shared_ptr<OrvOperation>>& operations);

  std::size_t count() const;
  void setMaxConcurrent(long count);
  long maxConcurrent() const;
  void setUnderlyingExecutor(std::function<bool(std::function<void()>&)> executor);

 private:
  // Operations to start now: taken with mutex_ held, posted without.
  struct Starts {
    std::vector<std::shared_ptr<OrvOperation>> operations;
    std::shared_ptr<const std::function<bool(std::function<void()>&)>> executor;
  };
  Starts takeWhatMayStart();
  static void post(Starts& starts);
  std::vector<std::shared_ptr<OrvOperation>> snapshot(bool includeStarted) const;

  mutable std::mutex mutex_;
  std::condition_variable finished_;
  std::deque<std::shared_ptr<OrvOperation>> waiting_;
  std::unordered_map<const OrvOperation*, std::shared_ptr<OrvOperation>> started_;
  long maxConcurrent_ = -1;
  std::shared_ptr<const std::function<bool(std::function<void()>&)>> executor_;
  // Set while the state holds unfinished operations: a destroyed queue's operations keep running.
  std::shared_ptr<OperationQueueState> keepAlive_;
};

}  // namespace orv::detail
