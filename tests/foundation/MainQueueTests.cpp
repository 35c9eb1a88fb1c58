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

TEST_F(OrvMainQueueTest, NeverInlineAndFirstInFirstOut) {
  std::vector<int> order;
  bool currentInside = false;
  OrvMainQueue::dispatchAsync([&] {
    order.push_back(1);
    currentInside = OrvMainQueue::isCurrent();
    // Queued behind what is already waiting, not run inside this task.
    OrvMainQueue::dispatchAsync([&] { order.push_back(3); });
    order.push_back(11);
  });
  OrvMainQueue::dispatchAsync([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  EXPECT_FALSE(OrvMainQueue::isCurrent());
  EXPECT_EQ(OrvMainQueue::drain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 11, 2, 3}));
  EXPECT_TRUE(currentInside);
  EXPECT_FALSE(OrvMainQueue::isCurrent());
  EXPECT_EQ(OrvMainQueue::drain(), 0u);
}

TEST_F(OrvMainQueueTest, RunUntilTakesTasksFromOtherThreads) {
  std::atomic<int> ran{0};
  std::thread::id mainThread = std::this_thread::get_id();
  std::atomic<bool> onMainThread{true};
  for (int i = 0; i < 20; ++i) {
    orv::detail::dispatchToWorkerPool([&] {
      OrvMainQueue::dispatchAsync([&] {
        if (std::this_thread::get_id() != mainThread) onMainThread = false;
        ++ran;
      });
    });
  }
  EXPECT_TRUE(OrvMainQueue::runUntil([&] { return ran.load() == 20; }, 20s));
  EXPECT_TRUE(onMainThread);
  EXPECT_FALSE(OrvMainQueue::runUntil([] { return false; }, 0ms));
  EXPECT_TRUE(OrvMainQueue::runUntil([] { return true; }, 0ms));
}

TEST_F(OrvMainQueueTest, RunStopsWhenATaskSaysSo) {
  int ran = 0;
  OrvMainQueue::dispatchAsync([&] { ++ran; });
  OrvMainQueue::dispatchAsync([&] { OrvMainQueue::stop(); });
  OrvMainQueue::dispatchAsync([&] { ++ran; });
  OrvMainQueue::run();
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
  EXPECT_EQ(ran, 2);
  // A throwing task does not escape the loop.
  OrvMainQueue::dispatchAsync([] { throw std::runtime_error("ignored"); });
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
}

TEST_F(OrvMainQueueTest, BridgeReceivesQueuedThenFutureTasksInOrder) {
  std::vector<int> order;
  OrvMainQueue::dispatchAsync([&] { order.push_back(1); });
  OrvMainQueue::dispatchAsync([&] { order.push_back(2); });
  std::mutex mutex;
  std::vector<OrvMainQueue::Task> hostLoop;
  OrvMainQueue::setBridge([&](OrvMainQueue::Task task) {
    std::lock_guard lock(mutex);
    hostLoop.push_back(std::move(task));
  });
  bool currentInside = false;
  OrvMainQueue::dispatchAsync([&] {
    order.push_back(3);
    currentInside = OrvMainQueue::isCurrent();
  });
  std::thread([&] { OrvMainQueue::dispatchAsync([&] { order.push_back(4); }); }).join();
  EXPECT_EQ(OrvMainQueue::drain(), 0u);  // everything went to the host
  EXPECT_TRUE(order.empty());
  std::vector<OrvMainQueue::Task> tasks;
  {
    std::lock_guard lock(mutex);
    tasks.swap(hostLoop);
  }
  ASSERT_EQ(tasks.size(), 4u);
  for (auto& task : tasks) task();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(currentInside);

  OrvMainQueue::setBridge({});
  OrvMainQueue::dispatchAsync([&] { order.push_back(5); });
  EXPECT_EQ(OrvMainQueue::drain(), 1u);
  std::lock_guard lock(mutex);
  EXPECT_TRUE(hostLoop.empty());
}

}  // namespace
