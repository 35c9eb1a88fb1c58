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
// does nothing, and a nil operation starts none. Destroying the service ends the held workflows cancelled.
TEST(OrvAtomicWorkflowServiceTest, OneWorkflowAtATimeInOrderUntilTheServiceGoes) {
  auto service = std::make_unique<OrvAtomicWorkflowService>("test.workflows");
  auto& queue = service->operationQueue();
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> ran{0}, ended{0}, inner{0}, completed{0};
  std::atomic<bool> overlapped{false};
  const auto start = [&](int id) {
    auto operation = OrvBlockOperation::blockOperationWithBlock([&, id] {
      overlapped = overlapped || ended != id;
      if (id == 0) queue.addOperationWithBlock([&] { queue.addOperationWithBlock([&] { ++inner; }); });
      std::lock_guard lock(mutex);
      order.push_back(id);
      ++ran;
    });
    operation->setCompletionBlock([&] { ++completed; });
    service->startAtomicWorkflowWithOperation(operation);
  };
  // Waits for the workflow to run, then checks that nothing after it did.
  const auto ranExactly = [&](int count) {
    EXPECT_TRUE(pollUntil([&] { return ran >= count; }));
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), count);
  };
  service->endAtomicWorkflow();
  service->startAtomicWorkflowWithOperation(nullptr);
  for (int id = 0; id < 5; ++id) start(id);
  for (int id = 0; id < 5; ++id) {
    ranExactly(id + 1);
    ++ended;
    EXPECT_EQ(inner.load(), 1);
    std::thread([&] { service->endAtomicWorkflow(); }).join();  // ended from any thread
  }
  service->endAtomicWorkflow();  // one too many: must not let the next two run together
  start(5);
  start(6);
  ranExactly(6);
  ++ended;
  service->endAtomicWorkflow();
  ranExactly(7);
  for (int id = 7; id < 10; ++id) start(id);
  service.reset();
  ASSERT_TRUE(pollUntil([&] { return completed >= 10; }));
  EXPECT_EQ(ran.load(), 7);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(overlapped);
}

}  // namespace
