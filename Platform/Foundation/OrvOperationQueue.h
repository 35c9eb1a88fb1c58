#pragma once
// An operation queue: starts the operations added to it on a process-wide pool of worker threads,
// keeps each alive until it has finished, and runs completion blocks on the same pool.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "OrvOperation.h"

class OrvOperationQueue {
 public:
  // Unlimited: every added operation is started as soon as a worker is free.
  static constexpr long OrvOperationQueueDefaultMaxConcurrentOperationCount = -1;

  explicit OrvOperationQueue(std::string name = {});
  // Cancels what has not started yet; operations in flight keep running to their own end.
  ~OrvOperationQueue();
  OrvOperationQueue(const OrvOperationQueue&) = delete;
  OrvOperationQueue& operator=(const OrvOperationQueue&) = delete;

  void addOperation(std::shared_ptr<OrvOperation> operation);
  // Adds all of them in one call; with waitUntilFinished the caller blocks until they have finished
  // (never do that from a worker of the pool).
  void addOperations(std::vector<std::shared_ptr<OrvOperation>> operations, bool waitUntilFinished = false);
  void addOperationWithBlock(std::function<void()> block);

  void cancelAllOperations();
  void waitUntilAllOperationsAreFinished();
  // Operations added and not yet finished.
  std::size_t operationCount() const;

  void setMaxConcurrentOperationCount(long count);
  long maxConcurrentOperationCount() const;
  // Where a few operations started together run instead of the pool: the executor takes the task (and
  // returns true) or leaves it (false), and the pool runs it. Operations of a queue with an executor
  // must not block, as the executor's thread may have other work. Unset by default.
  void setUnderlyingExecutor(std::function<bool(std::function<void()>&)> executor);
  const std::string& name() const noexcept { return name_; }

 private:
  std::string name_;
  std::shared_ptr<orv::detail::OperationQueueState> state_;
};

namespace orv::detail {
// The process-wide worker pool behind every queue, also used for session and security callbacks. Its
// threads are joined at process exit once the work queued by then has run. Throws only when the task
// cannot be queued (out of memory).
void dispatchToWorkerPool(std::function<void()> task);
}  // namespace orv::detail
