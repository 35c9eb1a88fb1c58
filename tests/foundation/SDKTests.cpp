#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

#include "FoundationTestHelpers.h"
#include "OrvHttpHeaderProviderServiceProtocol.h"
#include "OrvOperationQueue.h"
#include "OrvSdkLogger.h"
#include "OrvUrlSessionTaskOperationObjC.h"

using ::testing::_;
using ::testing::StrictMock;

namespace {

class MockLoggerDelegate : public OrvSdkLoggerDelegate {
public:
  MOCK_METHOD(void, logWithModule,
              (std::string_view module, std::int64_t logLevel, std::string_view fileName, std::string_view functionName,
               std::int64_t lineNumber, std::string_view message),
              (override));
};

TEST(OrvSdkLoggerTest, DeliversTheFormattedLineUnchanged) {
  auto delegate = std::make_shared<StrictMock<MockLoggerDelegate>>();
  auto logger = OrvSdkLogger::initWithLoggerDelegate(nullptr);
  logger->logWithModule("M", OrvSdkLogLevelInfo, "f.cpp", "fn", 1, "%@", {"dropped"});  // no delegate yet

  logger->setDelegate(delegate);
  EXPECT_EQ(logger->delegate(), delegate);
  EXPECT_CALL(*delegate, logWithModule(std::string_view("OrvAppConfigService"), OrvSdkLogLevelError,
                                       std::string_view("Classes/x.cpp"), std::string_view("-[X y:]"), 42,
                                       std::string_view("URL https://h/%41%d%@ failed")));
  logger->logWithModule("OrvAppConfigService", OrvSdkLogLevelError, "Classes/x.cpp", "-[X y:]", 42, "%@",
                        {"URL https://h/%41%d%@ failed"});
  EXPECT_CALL(*delegate, logWithModule(_, _, std::string_view(""), std::string_view(""), 0, std::string_view("(null)")));
  logger->logWithModule("M", OrvSdkLogLevelInfo, nullptr, nullptr, 0, "%@", {});
}

class CountingDelegate : public OrvSdkLoggerDelegate {
public:
  void logWithModule(std::string_view, std::int64_t, std::string_view, std::string_view, std::int64_t,
                     std::string_view message) override {
    if (message == "m") ++lines;
  }
  std::atomic<int> lines{0};
};

TEST(OrvSdkLoggerTest, DelegateSwapsWhileOtherThreadsLog) {
  auto logger = OrvSdkLogger::initWithLoggerDelegate(nullptr);
  auto a = std::make_shared<CountingDelegate>(), b = std::make_shared<CountingDelegate>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) logger->logWithModule("M", OrvSdkLogLevelInfo, "f", "g", i, "%@", {"m"});
    });
  }
  for (int i = 0; i < 200; ++i) logger->setDelegate(i % 2 ? a : b);
  logger->setDelegate(nullptr);
  for (auto& thread : threads) thread.join();
  EXPECT_LE(a->lines + b->lines, 1500);
}

TEST(OrvHttpHeaderProviderServiceTest, FreshRandomTransactionIds) {
  OrvHttpHeaderProviderService provider(OrvHTTPHeaderDictionary{{"X-Client", "test"}});
  EXPECT_EQ(provider.httpMonitoringHeaders(), (OrvHTTPHeaderDictionary{{"X-Client", "test"}}));
  const auto first = provider.uniqueTransactionIdHeader();
  const auto second = provider.uniqueTransactionIdHeader();
  ASSERT_EQ(first.size(), 1u);
  ASSERT_TRUE(first.contains("X-Transaction-Id"));
  EXPECT_NE(first.at("X-Transaction-Id"), second.at("X-Transaction-Id"));
  const std::regex v4("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
  EXPECT_TRUE(std::regex_match(first.at("X-Transaction-Id"), v4)) << first.at("X-Transaction-Id");

  EXPECT_TRUE(OrvHttpHeaderProviderService(OrvHTTPHeaderDictionary{}, "").uniqueTransactionIdHeader().empty());
  EXPECT_TRUE(OrvHttpHeaderProviderService(OrvHTTPHeaderDictionary{}, "Req-Id").uniqueTransactionIdHeader().contains("Req-Id"));
}

class FakeTask : public OrvURLSessionDataTask {
public:
  void resume() override {}
  void cancel() override { ++cancels; }
  std::uint64_t taskIdentifier() const override { return 1; }
  std::atomic<int> cancels{0};
};

// Runs like a query: stores its task, then waits for the test to complete it.
class TaskOperation : public OrvUrlSessionTaskOperationObjC {
public:
  using OrvUrlSessionTaskOperationObjC::OrvUrlSessionTaskOperationObjC;
  void start() override {
    if (isCancelled()) {
      coreCompleteOperation();
      return;
    }
    moveToExecutingState();
    setSessionTaskOperationHandle(task);
    started.notify();
  }
  void complete(std::optional<OrvError> error) {
    setCompletionError(std::move(error));
    coreCompleteOperation();
  }
  std::shared_ptr<FakeTask> task = std::make_shared<FakeTask>();
  orv::test::Signal started;
};

TEST(OrvUrlSessionTaskOperationObjCTest, CancellingARunningOperationCancelsItsTask) {
  OrvOperationQueue queue;
  auto operation = std::make_shared<TaskOperation>(nullptr);
  EXPECT_TRUE(operation->isAsynchronous());
  EXPECT_EQ(operation->urlSession(), nullptr);
  queue.addOperation(operation);
  ASSERT_TRUE(operation->started.waitFor(1));
  EXPECT_EQ(operation->sessionTaskOperationHandle(), operation->task);
  operation->cancel();
  EXPECT_EQ(operation->task->cancels.load(), 1);
  EXPECT_TRUE(operation->isExecuting());  // it ends when its task reports back
  operation->complete(OrvError(OrvURLErrorDomain, OrvURLErrorCancelled));
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(operation->completionError());
  EXPECT_EQ(operation->completionError()->code(), OrvURLErrorCancelled);
  operation->cancel();
  EXPECT_EQ(operation->task->cancels.load(), 1);

  // A cancel that arrives before the task is stored reaches it when it is stored.
  auto early = std::make_shared<TaskOperation>(nullptr);
  early->moveToExecutingState();
  early->cancel();
  auto task = std::make_shared<FakeTask>();
  early->setSessionTaskOperationHandle(task);
  EXPECT_EQ(task->cancels.load(), 1);
}

}  // namespace
