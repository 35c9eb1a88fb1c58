#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "FoundationTestHelpers.h"
#include "OrvOperationQueue.h"

using orv::test::Signal;

namespace {

// Finishes only when the test says so, like a request waiting for its answer.
class AsyncOperation : public OrvOperation {
public:
  bool isAsynchronous() const override { return true; }
  void start() override {
    if (isCancelled()) {
      moveToFinishedState();
      return;
    }
    moveToExecutingState();
    started.notify();
  }
  void finish() { moveToFinishedState(); }
  Signal started;
};

TEST(OrvOperationQueueTest, CompletionBlockRunsOnceAfterFinishingOnAnotherThread) {
  OrvOperationQueue queue("test.completion");
  auto operation = std::make_shared<AsyncOperation>();
  Signal completed;
  std::atomic<bool> finishedWhenCompleted{false};
  std::atomic<std::thread::id> completionThread;
  std::weak_ptr<AsyncOperation> weak = operation;
  operation->setCompletionBlock([&, weak] {
    // The operation is still alive for its completion block even after the queue let go of it.
    const auto strong = weak.lock();
    finishedWhenCompleted = strong && strong->isFinished();
    completionThread = std::this_thread::get_id();
    completed.notify();
  });
  queue.addOperation(operation);
  ASSERT_TRUE(operation->started.waitFor(1));
  EXPECT_TRUE(operation->isExecuting());  // start() returned, still executing
  EXPECT_EQ(queue.operationCount(), 1u);

  std::weak_ptr<AsyncOperation> released = operation;
  operation.reset();
  operation = released.lock();  // the queue alone kept it alive meanwhile
  ASSERT_TRUE(operation);
  operation->finish();
  operation->finish();  // a second finish is ignored
  ASSERT_TRUE(completed.waitFor(1));
  EXPECT_TRUE(finishedWhenCompleted);
  EXPECT_NE(completionThread.load(), std::this_thread::get_id());
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue.operationCount(), 0u);
  EXPECT_EQ(completed.count(), 1);
}

TEST(OrvOperationQueueTest, MaxConcurrencyCountsAsynchronousOperations) {
  OrvOperationQueue queue;
  queue.setMaxConcurrentOperationCount(1);
  EXPECT_EQ(queue.maxConcurrentOperationCount(), 1);
  auto first = std::make_shared<AsyncOperation>();
  std::atomic<bool> firstWasFinished{false};
  auto second = OrvBlockOperation::blockOperationWithBlock([&] { firstWasFinished = first->isFinished(); });
  queue.addOperations({first, second});
  ASSERT_TRUE(first->started.waitFor(1));
  EXPECT_FALSE(second->isFinished());
  first->finish();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(firstWasFinished);

  // With a limit of two, no more than two ever run at once.
  queue.setMaxConcurrentOperationCount(2);
  std::atomic<int> running{0}, peak{0};
  std::vector<std::shared_ptr<OrvOperation>> batch;
  for (int i = 0; i < 40; ++i) {
    batch.push_back(OrvBlockOperation::blockOperationWithBlock([&] {
      const int now = ++running;
      int seen = peak.load();
      while (now > seen && !peak.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::yield();
      --running;
    }));
  }
  queue.addOperations(batch, true);
  EXPECT_LE(peak.load(), 2);
  for (const auto& operation : batch) EXPECT_TRUE(operation->isFinished());
}

TEST(OrvOperationQueueTest, CancelledBeforeStartSkipsMainButCompletes) {
  OrvOperationQueue queue;
  std::atomic<int> mainRuns{0};
  Signal completed;
  auto operation = OrvBlockOperation::blockOperationWithBlock([&] { ++mainRuns; });
  operation->setCompletionBlock([&] { completed.notify(); });
  operation->cancel();
  operation->cancel();
  EXPECT_TRUE(operation->isCancelled());
  queue.addOperations({operation}, true);
  ASSERT_TRUE(completed.waitFor(1));
  EXPECT_EQ(mainRuns.load(), 0);
  EXPECT_TRUE(operation->isFinished());
}

TEST(OrvOperationQueueTest, AnOperationRunsInOneQueueOnce) {
  OrvOperationQueue first, second;
  std::atomic<int> runs{0};
  auto operation = OrvBlockOperation::blockOperationWithBlock([&] { ++runs; });
  first.addOperations({operation, operation, nullptr});
  second.addOperation(operation);
  first.waitUntilAllOperationsAreFinished();
  second.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(second.operationCount(), 0u);

  // A finished operation is not taken again.
  auto done = OrvBlockOperation::blockOperationWithBlock([&] { ++runs; });
  done->start();
  EXPECT_TRUE(done->isFinished());
  second.addOperation(done);
  EXPECT_EQ(second.operationCount(), 0u);
  EXPECT_EQ(runs.load(), 2);
}

TEST(OrvOperationQueueTest, DestroyingAQueueLetsEveryOperationEnd) {
  Signal completions;
  std::atomic<int> mains{0};
  auto inFlight = std::make_shared<AsyncOperation>();
  std::weak_ptr<AsyncOperation> watch = inFlight;
  inFlight->setCompletionBlock([&] { completions.notify(); });
  std::vector<std::weak_ptr<OrvOperation>> waiting;
  {
    auto queue = std::make_unique<OrvOperationQueue>("test.destroy");
    queue->setMaxConcurrentOperationCount(1);
    queue->addOperation(inFlight);
    ASSERT_TRUE(inFlight->started.waitFor(1));
    for (int i = 0; i < 3; ++i) {
      auto operation = OrvBlockOperation::blockOperationWithBlock([&] { ++mains; });
      operation->setCompletionBlock([&] { completions.notify(); });
      waiting.push_back(operation);
      queue->addOperation(std::move(operation));
    }
    queue.reset();  // must not wait for the operation in flight
  }
  for (const auto& operation : waiting) {
    const auto strong = operation.lock();
    ASSERT_TRUE(strong);  // still held for their turn
    EXPECT_TRUE(strong->isCancelled());
  }
  EXPECT_FALSE(inFlight->isCancelled());
  inFlight->finish();
  inFlight.reset();
  ASSERT_TRUE(completions.waitFor(4));
  EXPECT_EQ(mains.load(), 0);
}

TEST(OrvOperationQueueTest, ManyProducersManyOperations) {
  OrvOperationQueue queue("test.stress");
  std::atomic<int> mains{0};
  Signal completions;
  constexpr int kThreads = 4, kPerThread = 250;
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&] {
      for (int i = 0; i < kPerThread; ++i) {
        auto operation = OrvBlockOperation::blockOperationWithBlock([&] { ++mains; });
        operation->setCompletionBlock([&] { completions.notify(); });
        if (i % 50 == 0) queue.cancelAllOperations();
        queue.addOperation(std::move(operation));
      }
    });
  }
  for (auto& producer : producers) producer.join();
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(completions.waitFor(kThreads * kPerThread));
  EXPECT_LE(mains.load(), kThreads * kPerThread);
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OrvOperationQueueTest, WorkerPoolRunsPostedTasksAndSurvivesThrowingOnes) {
  Signal done;
  orv::detail::dispatchToWorkerPool([] { throw std::runtime_error("ignored"); });
  for (int i = 0; i < 16; ++i) orv::detail::dispatchToWorkerPool([&] { done.notify(); });
  EXPECT_TRUE(done.waitFor(16));

  // A throwing main still finishes its operation.
  OrvOperationQueue queue;
  auto operation = OrvBlockOperation::blockOperationWithBlock([] { throw std::runtime_error("boom"); });
  queue.addOperations({operation}, true);
  EXPECT_TRUE(operation->isFinished());
}

}  // namespace
