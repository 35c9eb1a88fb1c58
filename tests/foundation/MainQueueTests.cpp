#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "OrvMainQueue.h"
#include "OrvOperationQueue.h"

namespace {

using namespace std::chrono_literals;

class OrvMainQueueTest : public ::testing::Test {
 protected:
  void TearDown() override {
    OrvMainQueue::setBridge({});
    OrvMainQueue::drain();
  }
};

TEST_F(OrvMainQueueTest, NeverInlineFirstInFirstOut) {
  std::vector<int> order;
  bool currentInside = false;
  OrvMainQueue::dispatchAsync([&] {
    currentInside = OrvMainQueue::isCurrent();
    OrvMainQueue::dispatchAsync([&] { order.push_back(3); });  // behind what already waits
    order.push_back(1);
  });
  OrvMainQueue::dispatchAsync([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(OrvMainQueue::drain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(currentInside);
  EXPECT_FALSE(OrvMainQueue::isCurrent());

  // Tasks from worker threads run on the thread that runs the queue.
  std::atomic<int> ran{0};
  std::atomic<bool> elsewhere{false};
  const auto self = std::this_thread::get_id();
  for (int i = 0; i < 20; ++i) {
    orv::detail::dispatchToWorkerPool([&] {
      OrvMainQueue::dispatchAsync([&] {
        elsewhere = elsewhere || std::this_thread::get_id() != self;
        ++ran;
      });
    });
  }
  EXPECT_TRUE(OrvMainQueue::runUntil([&] { return ran == 20; }, 20s));
  EXPECT_FALSE(elsewhere);
  EXPECT_FALSE(OrvMainQueue::runUntil([] { return false; }, 0ms));
}

TEST_F(OrvMainQueueTest, RunStopsWhenATaskSaysSoAndAThrowingTaskLeavesTheQueueUsable) {
  int ran = 0;
  OrvMainQueue::dispatchAsync([&] { ++ran; });
  OrvMainQueue::dispatchAsync([] { throw std::runtime_error("the host's own"); });
  OrvMainQueue::dispatchAsync([] { OrvMainQueue::stop(); });
  OrvMainQueue::dispatchAsync([&] { ++ran; });
  // The host's exception reaches the host's call; the tasks after it wait for the next call.
  EXPECT_THROW(OrvMainQueue::run(), std::runtime_error);
  EXPECT_EQ(ran, 1);
  EXPECT_FALSE(OrvMainQueue::isCurrent());
  OrvMainQueue::run();
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
  EXPECT_EQ(ran, 2);
  OrvMainQueue::dispatchAsync([] { throw std::runtime_error("again"); });
  OrvMainQueue::dispatchAsync([&] { ++ran; });
  EXPECT_THROW(OrvMainQueue::drain(), std::runtime_error);
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
  EXPECT_EQ(ran, 3);
}

TEST_F(OrvMainQueueTest, BridgeTakesQueuedThenFutureTasksInOrder) {
  std::vector<int> order;
  OrvMainQueue::dispatchAsync([&] { order.push_back(1); });
  std::mutex mutex;
  std::vector<OrvMainQueue::Task> hostLoop;
  OrvMainQueue::setBridge([&](OrvMainQueue::Task task) {
    std::lock_guard lock(mutex);
    hostLoop.push_back(std::move(task));
  });
  bool currentInside = false;
  OrvMainQueue::dispatchAsync([&] { currentInside = OrvMainQueue::isCurrent(); });
  std::thread([&] { OrvMainQueue::dispatchAsync([&] { order.push_back(3); }); }).join();
  EXPECT_EQ(OrvMainQueue::drain(), 0u);
  std::vector<OrvMainQueue::Task> tasks;
  {
    std::lock_guard lock(mutex);
    tasks.swap(hostLoop);
  }
  ASSERT_EQ(tasks.size(), 3u);
  for (auto& task : tasks) task();
  EXPECT_EQ(order, (std::vector<int>{1, 3}));
  EXPECT_TRUE(currentInside);

  OrvMainQueue::setBridge({});
  OrvMainQueue::dispatchAsync([] {});
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
}

}  // namespace
