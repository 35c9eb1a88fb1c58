#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "OrvAtomicWorkflowService.h"
#include "TestSupport.h"

using orv::test::pollUntil;

namespace {

class Recorder {
 public:
  std::shared_ptr<OrvOperation> step(int id, std::function<void()> then = {}) {
    return OrvBlockOperation::blockOperationWithBlock([this, id, then = std::move(then)] {
      {
        std::lock_guard lock(mutex_);
        order_.push_back(id);
      }
      if (then) then();
      ++ran;
    });
  }
  std::vector<int> order() {
    std::lock_guard lock(mutex_);
    return order_;
  }
  bool waitRan(int count) {
    return pollUntil([&] { return ran >= count; });
  }
  std::atomic<int> ran{0};

 private:
  std::mutex mutex_;
  std::vector<int> order_;
};

TEST(OrvAtomicWorkflowServiceTest, OneWorkflowAtATimeInOrder) {
  OrvAtomicWorkflowService service("test.workflows");
  EXPECT_EQ(service.operationQueue().name(), "test.workflows");
  Recorder recorder;
  std::atomic<int> ended{0};
  std::atomic<bool> overlapped{false};
  for (int id = 0; id < 5; ++id) {
    service.startAtomicWorkflowWithOperation(recorder.step(id, [&, id] { overlapped = overlapped || ended != id; }));
  }
  for (int id = 0; id < 5; ++id) {
    ASSERT_TRUE(recorder.waitRan(id + 1));
    EXPECT_EQ(recorder.ran.load(), id + 1);  // the next one is held until this one ends
    ++ended;
    service.endAtomicWorkflow();
  }
  EXPECT_EQ(recorder.order(), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_FALSE(overlapped);
}

TEST(OrvAtomicWorkflowServiceTest, ActiveWorkflowOperationsNeverWaitForTheNextWorkflow) {
  OrvAtomicWorkflowService service("test.inner");
  Recorder recorder;
  std::atomic<int> inner{0};
  service.startAtomicWorkflowWithOperation(recorder.step(1, [&] {
    service.operationQueue().addOperationWithBlock([&] { service.operationQueue().addOperationWithBlock([&] { ++inner; }); });
  }));
  service.startAtomicWorkflowWithOperation(recorder.step(2));
  ASSERT_TRUE(pollUntil([&] { return inner > 0; }));
  service.operationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(recorder.order(), std::vector<int>{1});
  std::thread([&] { service.endAtomicWorkflow(); }).join();  // ended from any thread
  ASSERT_TRUE(recorder.waitRan(2));
  service.endAtomicWorkflow();
}

TEST(OrvAtomicWorkflowServiceTest, UnmatchedEndsDoNothing) {
  OrvAtomicWorkflowService service("test.unmatched");
  Recorder recorder;
  service.endAtomicWorkflow();
  service.startAtomicWorkflowWithOperation(nullptr);  // activates nothing
  service.startAtomicWorkflowWithOperation(recorder.step(1));
  ASSERT_TRUE(recorder.waitRan(1));
  service.endAtomicWorkflow();
  service.endAtomicWorkflow();  // must not let the next two run together
  service.startAtomicWorkflowWithOperation(recorder.step(2));
  service.startAtomicWorkflowWithOperation(recorder.step(3));
  ASSERT_TRUE(recorder.waitRan(2));
  service.operationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(recorder.order(), (std::vector<int>{1, 2}));
  service.endAtomicWorkflow();
  ASSERT_TRUE(recorder.waitRan(3));
  service.endAtomicWorkflow();
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
