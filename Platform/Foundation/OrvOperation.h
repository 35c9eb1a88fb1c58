#pragma once
// Operations with the platform's semantics: an operation is ready, then executing, then finished;
// an asynchronous one stays executing after start() returns, until it finishes itself. Cancelling
// only sets a flag that the operation reads. The completion block runs once, after the operation has
// finished, on one of the queue's threads.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class OrvOperationQueue;
namespace orv::detail {
class OperationQueueState;
}

class OrvOperation : public std::enable_shared_from_this<OrvOperation> {
 public:
  OrvOperation();
  virtual ~OrvOperation();
  OrvOperation(const OrvOperation&) = delete;
  OrvOperation& operator=(const OrvOperation&) = delete;

  // Called by the queue. The default runs main() synchronously, unless cancelled, and then finishes.
  virtual void start();
  virtual void main() {}
  virtual bool isAsynchronous() const { return false; }

  // Sets the cancelled flag and calls didCancel() once; a subclass decides what cancelling does
  // to work in flight.
  void cancel();
  bool isCancelled() const noexcept { return cancelled_.load(); }
  bool isExecuting() const noexcept { return state_.load() == State::executing; }
  bool isFinished() const noexcept { return state_.load() == State::finished; }

  void setCompletionBlock(std::function<void()> block);
  void setName(std::string name);
  std::string name() const;

 protected:
  virtual void didCancel() {}
  // ready -> executing; ignored in any other state.
  void moveToExecutingState();
  // -> finished exactly once; later calls are ignored. Schedules the completion block and lets the
  // queue release the operation.
  void moveToFinishedState();

 private:
  friend class orv::detail::OperationQueueState;
  enum class State { ready, executing, finished };
  std::atomic<State> state_{State::ready};
  std::atomic<bool> cancelled_{false};
  mutable std::mutex mutex_;
  std::function<void()> completionBlock_;
  std::string name_;
  // Set once by the queue that accepted the operation; guarded by mutex_.
  bool enqueued_ = false;
  std::weak_ptr<orv::detail::OperationQueueState> queue_;
};

// Runs one block as its main().
class OrvBlockOperation : public OrvOperation {
 public:
  explicit OrvBlockOperation(std::function<void()> block) : block_(std::move(block)) {}
  static std::shared_ptr<OrvBlockOperation> blockOperationWithBlock(std::function<void()> block) {
    return std::make_shared<OrvBlockOperation>(std::move(block));
  }
  void main() override;

 private:
  std::function<void()> block_;
};
