#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "OrvMainQueue.h"

namespace {

class OrvMainQueueTest : public ::testing::Test {
 protected:
  void TearDown() override {
    OrvMainQueue::setBridge({});
    OrvMainQueue::drain();
  }
};

TEST_F(OrvMainQueueTest, NeverInlineFirstInFirstOut) {
  std::vector<int> order;  // a task that does not see itself on the main queue records a negative number
  OrvMainQueue::dispatchAsync([&] {
    OrvMainQueue::dispatchAsync([&] { order.push_back(3); });  // behind what already waits
    order.push_back(OrvMainQueue::isCurrent() ? 1 : -1);
  });
  OrvMainQueue::dispatchAsync([&] { order.push_back(2); });
  EXPECT_EQ(OrvMainQueue::drain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(OrvMainQueue::isCurrent());
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
  // The bridge is called on the dispatching thread; the one other thread is joined before the loop is read.
  std::vector<OrvMainQueue::Task> hostLoop;
  OrvMainQueue::setBridge([&](OrvMainQueue::Task task) { hostLoop.push_back(std::move(task)); });
  OrvMainQueue::dispatchAsync([&] { order.push_back(OrvMainQueue::isCurrent() ? 2 : -2); });
  std::thread([&] { OrvMainQueue::dispatchAsync([&] { order.push_back(3); }); }).join();
  EXPECT_EQ(OrvMainQueue::drain(), 0u);
  ASSERT_EQ(hostLoop.size(), 3u);
  for (auto& task : hostLoop) task();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  OrvMainQueue::setBridge({});
  OrvMainQueue::dispatchAsync([] {});
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
}

}  // namespace
