#include "OrvOperation.h"

#include <utility>

#include "OrvOperationQueue.h"
#include "OrvOperationQueueState.h"
#include "OrvWorkerPool.h"

OrvOperation::OrvOperation() = default;
OrvOperation::~OrvOperation() = default;

void OrvOperation::start() {
  if (state_.load() != State::ready) return;
  if (isCancelled()) {
    moveToFinishedState();
    return;
  }
  // Only the caller that moves the operation out of ready runs main(); a second start() does nothing.
  State expected = State::ready;
  if (!state_.compare_exchange_strong(expected, State::executing)) return;
  try {
    main();
  } catch (...) {
    // An exception must not leave the operation executing for ever; the queue would never release it.
  }
  moveToFinishedState();
}

void OrvOperation::cancel() {
  if (!cancelled_.exchange(true)) didCancel();
}

void OrvOperation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mutex_);
  completionBlock_ = std::move(block);
}

void OrvOperation::setName(std::string name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}

std::string OrvOperation::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}

void OrvOperation::moveToExecutingState() {
  State expected = State::ready;
  state_.compare_exchange_strong(expected, State::executing);
}

void OrvOperation::moveToFinishedState() {
  // The queue may drop its reference below; whoever finishes us keeps using `this` until we return.
  const std::shared_ptr<OrvOperation> self = weak_from_this().lock();
  State current = state_.load();
  do {
    if (current == State::finished) return;
  } while (!state_.compare_exchange_weak(current, State::finished));

  std::function<void()> block;
  std::weak_ptr<orv::detail::OperationQueueState> queue;
  {
    std::lock_guard lock(mutex_);
    // Moving the block out also breaks any cycle through a block that captured the operation.
    block = std::exchange(completionBlock_, nullptr);
    queue = queue_;
  }
  if (block && orv::detail::isInWorkerTurn()) {
    // Already where the block would be sent: a hand-off would only cost a wake-up.
    try {
      block();
    } catch (...) {
      // As on the pool: a block that throws ends there, and the queue still hears that we finished.
    }
  } else if (block) {
    // The block reads the operation's results, so the operation lives until the block has run.
    try {
      orv::detail::dispatchToWorkerPool([self, block] { block(); });
    } catch (...) {
      // Out of memory for the hand-off: run the block here rather than never. Whoever waits on it
      // (a workflow's next step) must hear that the operation finished.
      try {
        block();
      } catch (...) {
      }
    }
  }
  if (const auto state = queue.lock()) state->operationFinished(this);
}

void OrvBlockOperation::main() {
  if (block_) block_();
}
