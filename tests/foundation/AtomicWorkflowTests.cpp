#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "OrvAtomicWorkflowService.h"
#include "TestSupport.h"

using orv::test::pollUntil;

namespace {

// Workflows run one at a time in the order started; what the active one adds to the queue runs meanwhile,
// without waiting for the next workflow; an end without an active workflow (before any, or one too many)
// does nothing, and a nil operation starts none.
TEST(OrvAtomicWorkflowServiceTest, OneWorkflowAtATimeInOrder) {
  OrvAtomicWorkflowService service("test.workflows");
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> ran{0}, ended{0}, inner{0};
  std::atomic<bool> overlapped{false};
  const auto start = [&](int id) {
    service.startAtomicWorkflowWithOperation(OrvBlockOperation::blockOperationWithBlock([&, id] {
      overlapped = overlapped || ended != id;
      if (id == 0) {
        service.operationQueue().addOperationWithBlock([&] { service.operationQueue().addOperationWithBlock([&] { ++inner; }); });
      }
      std::lock_guard lock(mutex);
      order.push_back(id);
      ++ran;
    }));
  };
  // Waits for the workflow to run, then checks that nothing after it did.
  const auto ranExactly = [&](int count) {
    EXPECT_TRUE(pollUntil([&] { return ran >= count; }));
    service.operationQueue().waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), count);
  };
  service.endAtomicWorkflow();
  service.startAtomicWorkflowWithOperation(nullptr);
  for (int id = 0; id < 5; ++id) start(id);
  for (int id = 0; id < 5; ++id) {
    ranExactly(id + 1);
    ++ended;
    EXPECT_EQ(inner.load(), 1);
    std::thread([&] { service.endAtomicWorkflow(); }).join();  // ended from any thread
  }
  service.endAtomicWorkflow();  // one too many: must not let the next two run together
  start(5);
  start(6);
  ranExactly(6);
  ++ended;
  service.endAtomicWorkflow();
  ranExactly(7);
  service.endAtomicWorkflow();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(overlapped);
}

TEST(OrvAtomicWorkflowServiceTest, DestroyedServiceEndsHeldWorkflowsCancelled) {
  std::atomic<int> completed{0}, firstRan{0}, mains{0};
  {
    OrvAtomicWorkflowService service("test.destroy");
    service.startAtomicWorkflowWithOperation(OrvBlockOperation::blockOperationWithBlock([&] { ++firstRan; }));
    ASSERT_TRUE(pollUntil([&] { return firstRan > 0; }));
    for (int i = 0; i < 3; ++i) {
      auto held = OrvBlockOperation::blockOperationWithBlock([&] { ++mains; });
      held->setCompletionBlock([&] { ++completed; });
      service.startAtomicWorkflowWithOperation(held);
    }
  }
  ASSERT_TRUE(pollUntil([&] { return completed >= 3; }));
  EXPECT_EQ(mains.load(), 0);
}

}  // namespace
