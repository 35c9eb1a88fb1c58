#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "OrvOperationQueue.h"
#include "TestSupport.h"

using orv::test::pollUntil;

namespace {

// Finishes only when the test says so, like a request waiting for its answer.
class AsyncOperation : public OrvOperation {
 public:
  bool isAsynchronous() const override { return true; }
  void start() override {
    if (isCancelled()) return moveToFinishedState();
    moveToExecutingState();
    ++started;
  }
  void finish() { moveToFinishedState(); }
  std::atomic<int> started{0};
};

std::shared_ptr<OrvOperation> counting(std::atomic<int>& mains, std::atomic<int>* completions = nullptr) {
  auto operation = OrvBlockOperation::blockOperationWithBlock([&mains] { ++mains; });
  if (completions) operation->setCompletionBlock([completions] { ++*completions; });
  return operation;
}

// An asynchronous operation holds its place in the queue's limit until it finishes, not until start()
// returns; it completes once, on another thread than the one that finished it.
TEST(OrvOperationQueueTest, AsyncOperationHoldsItsSlotAndCompletesOnceOnAnotherThread) {
  OrvOperationQueue queue("test.completion");
  queue.setMaxConcurrentOperationCount(1);
  auto operation = std::make_shared<AsyncOperation>();
  std::atomic<int> completed{0};
  std::atomic<bool> finishedWhenCompleted{false}, onFinishingThread{true}, finishedWhenNextRan{false};
  std::weak_ptr<AsyncOperation> weak = operation;
  const auto finisher = std::this_thread::get_id();
  operation->setCompletionBlock([&, weak] {
    // The operation lives for its completion block even when the queue has let go of it.
    if (const auto strong = weak.lock()) finishedWhenCompleted = strong->isFinished();
    onFinishingThread = std::this_thread::get_id() == finisher;
    ++completed;
  });
  const auto next = [&, weak] { finishedWhenNextRan = !weak.lock() || weak.lock()->isFinished(); };
  queue.addOperations({operation, OrvBlockOperation::blockOperationWithBlock(next)});
  ASSERT_TRUE(pollUntil([&] { return operation->started > 0; }));
  EXPECT_TRUE(operation->isExecuting());  // start() has returned, the operation goes on
  operation.reset();
  operation = weak.lock();  // the queue alone kept it meanwhile
  ASSERT_TRUE(operation);
  operation->finish();
  operation->finish();
  ASSERT_TRUE(pollUntil([&] { return completed > 0; }));
  EXPECT_TRUE(finishedWhenCompleted);
  EXPECT_FALSE(onFinishingThread);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(finishedWhenNextRan);
  EXPECT_EQ(completed, 1);
}

TEST(OrvOperationQueueTest, MaxConcurrencyHolds) {
  OrvOperationQueue queue;
  queue.setMaxConcurrentOperationCount(2);
  std::atomic<int> running{0}, peak{0};
  std::vector<std::shared_ptr<OrvOperation>> batch(40);
  for (auto& operation : batch) {
    operation = OrvBlockOperation::blockOperationWithBlock([&] {
      for (int now = ++running, seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) continue;
      std::this_thread::yield();
      --running;
    });
  }
  queue.addOperations(batch, true);
  EXPECT_LE(peak.load(), 2);
  for (const auto& operation : batch) EXPECT_TRUE(operation->isFinished());
}

// A few operations started together run where the queue's executor puts them (here: at once, on the
// adding thread); a burst, or work the executor refuses, goes to the pool. Every operation runs.
TEST(OrvOperationQueueTest, FewStartsGoToTheUnderlyingExecutorTheRestToThePool) {
  std::atomic<bool> accepting{true};
  OrvOperationQueue queue("test.executor");
  queue.setUnderlyingExecutor([&accepting](std::function<void()>& task) {
    if (accepting) task();
    return accepting.load();
  });
  const auto ranHere = [&queue](std::size_t size) {
    auto ranOn = std::make_shared<std::vector<std::thread::id>>(size);
    std::vector<std::shared_ptr<OrvOperation>> operations;
    for (std::size_t i = 0; i < size; ++i)
      operations.push_back(OrvBlockOperation::blockOperationWithBlock([ranOn, i] { (*ranOn)[i] = std::this_thread::get_id(); }));
    queue.addOperations(operations, true);
    return std::ranges::count(*ranOn, std::this_thread::get_id());
  };
  EXPECT_EQ(ranHere(3), 3);
  EXPECT_EQ(ranHere(40), 0);
  accepting = false;
  EXPECT_EQ(ranHere(2), 0);
}

TEST(OrvOperationQueueTest, DestroyingAQueueLetsEveryOperationEnd) {
  std::atomic<int> completions{0}, mains{0};
  auto inFlight = std::make_shared<AsyncOperation>();
  inFlight->setCompletionBlock([&] { ++completions; });
  std::vector<std::shared_ptr<OrvOperation>> waiting;
  {
    OrvOperationQueue queue("test.destroy");
    queue.setMaxConcurrentOperationCount(1);
    queue.addOperation(inFlight);
    ASSERT_TRUE(pollUntil([&] { return inFlight->started > 0; }));
    for (int i = 0; i < 3; ++i) waiting.push_back(counting(mains, &completions));
    queue.addOperations(waiting);
  }  // returns at once although an operation is in flight
  for (const auto& operation : waiting) EXPECT_TRUE(operation->isCancelled());
  EXPECT_FALSE(inFlight->isCancelled());
  inFlight->finish();
  ASSERT_TRUE(pollUntil([&] { return completions >= 4; }));
  EXPECT_EQ(mains.load(), 0);
}

// Each operation's main runs at most once: not when it was cancelled first, not when added again or to
// another queue, not when many threads add while others cancel; a throwing task loses nothing.
TEST(OrvOperationQueueTest, MainsRunAtMostOnceAndCompletionsAlways) {
  OrvOperationQueue queue("test.stress"), other;
  std::atomic<int> runs{0}, completed{0};
  auto cancelled = counting(runs, &completed);
  cancelled->cancel();
  queue.addOperations({cancelled}, true);
  ASSERT_TRUE(pollUntil([&] { return completed > 0; }));
  EXPECT_EQ(runs.load(), 0);

  auto twice = counting(runs);
  queue.addOperations({twice, twice, nullptr});
  other.addOperation(twice);
  queue.waitUntilAllOperationsAreFinished();
  queue.addOperation(twice);  // finished: ignored
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(other.operationCount(), 0u);

  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        if (i % 50 == 0) queue.cancelAllOperations();
        queue.addOperation(counting(runs, &completed));
      }
    });
  }
  for (auto& producer : producers) producer.join();
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(pollUntil([&] { return completed >= 1001; }));
  EXPECT_LE(runs.load(), 1001);
  EXPECT_EQ(queue.operationCount(), 0u);

  orv::detail::dispatchToWorkerPool([] { throw std::runtime_error("ignored"); });
  auto throwing = OrvBlockOperation::blockOperationWithBlock([] { throw std::runtime_error("boom"); });
  queue.addOperations({throwing}, true);
  EXPECT_TRUE(throwing->isFinished());
}

}  // namespace
