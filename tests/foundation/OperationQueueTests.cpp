#include <gtest/gtest.h>

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
  bool waitStarted() {
    return pollUntil([this] { return started > 0; });
  }
  std::atomic<int> started{0};
};

TEST(OrvOperationQueueTest, AsyncOperationCompletesOnceOnAnotherThread) {
  OrvOperationQueue queue("test.completion");
  auto operation = std::make_shared<AsyncOperation>();
  std::atomic<int> completed{0};
  std::atomic<bool> finishedWhenCompleted{false}, onFinishingThread{true};
  std::weak_ptr<AsyncOperation> weak = operation;
  const auto finisher = std::this_thread::get_id();
  operation->setCompletionBlock([&, weak] {
    // The operation lives for its completion block even when the queue has let go of it.
    const auto strong = weak.lock();
    finishedWhenCompleted = strong && strong->isFinished();
    onFinishingThread = std::this_thread::get_id() == finisher;
    ++completed;
  });
  queue.addOperation(operation);
  ASSERT_TRUE(operation->waitStarted());
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
  EXPECT_EQ(queue.operationCount(), 0u);
  EXPECT_EQ(completed, 1);
}

TEST(OrvOperationQueueTest, MaxConcurrencyCountsAsynchronousOperations) {
  OrvOperationQueue queue;
  queue.setMaxConcurrentOperationCount(1);
  auto first = std::make_shared<AsyncOperation>();
  std::atomic<bool> firstWasFinished{false};
  auto second = OrvBlockOperation::blockOperationWithBlock([&] { firstWasFinished = first->isFinished(); });
  queue.addOperations({first, second});
  ASSERT_TRUE(first->waitStarted());
  first->finish();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(firstWasFinished);

  queue.setMaxConcurrentOperationCount(2);
  std::atomic<int> running{0}, peak{0};
  std::vector<std::shared_ptr<OrvOperation>> batch;
  for (int i = 0; i < 40; ++i) {
    batch.push_back(OrvBlockOperation::blockOperationWithBlock([&] {
      const int now = ++running;
      for (int seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
      }
      std::this_thread::yield();
      --running;
    }));
  }
  queue.addOperations(batch, true);
  EXPECT_LE(peak.load(), 2);
  for (const auto& operation : batch) EXPECT_TRUE(operation->isFinished());
}

TEST(OrvOperationQueueTest, CancelledOrRepeatedOperationsRunMainAtMostOnce) {
  OrvOperationQueue queue, other;
  std::atomic<int> runs{0}, completed{0};
  auto cancelled = OrvBlockOperation::blockOperationWithBlock([&] { ++runs; });
  cancelled->setCompletionBlock([&] { ++completed; });
  cancelled->cancel();
  queue.addOperations({cancelled}, true);
  ASSERT_TRUE(pollUntil([&] { return completed > 0; }));
  EXPECT_EQ(runs.load(), 0);

  auto twice = OrvBlockOperation::blockOperationWithBlock([&] { ++runs; });
  queue.addOperations({twice, twice, nullptr});
  other.addOperation(twice);
  queue.waitUntilAllOperationsAreFinished();
  queue.addOperation(twice);  // finished: ignored
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(other.operationCount() + queue.operationCount(), 0u);
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
    ASSERT_TRUE(inFlight->waitStarted());
    for (int i = 0; i < 3; ++i) {
      waiting.push_back(OrvBlockOperation::blockOperationWithBlock([&] { ++mains; }));
      waiting.back()->setCompletionBlock([&] { ++completions; });
    }
    queue.addOperations(waiting);
  }  // returns at once although an operation is in flight
  for (const auto& operation : waiting) EXPECT_TRUE(operation->isCancelled());
  EXPECT_FALSE(inFlight->isCancelled());
  inFlight->finish();
  ASSERT_TRUE(pollUntil([&] { return completions >= 4; }));
  EXPECT_EQ(mains.load(), 0);
}

TEST(OrvOperationQueueTest, ManyProducersAndAThrowingTask) {
  OrvOperationQueue queue("test.stress");
  std::atomic<int> completions{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        auto operation = OrvBlockOperation::blockOperationWithBlock([] {});
        operation->setCompletionBlock([&] { ++completions; });
        if (i % 50 == 0) queue.cancelAllOperations();
        queue.addOperation(std::move(operation));
      }
    });
  }
  for (auto& producer : producers) producer.join();
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(pollUntil([&] { return completions >= 1000; }));
  EXPECT_EQ(queue.operationCount(), 0u);

  // Neither a throwing pool task nor a throwing main() loses a worker or an operation.
  orv::detail::dispatchToWorkerPool([] { throw std::runtime_error("ignored"); });
  auto throwing = OrvBlockOperation::blockOperationWithBlock([] { throw std::runtime_error("boom"); });
  queue.addOperations({throwing}, true);
  EXPECT_TRUE(throwing->isFinished());
}

}  // namespace
