#include <gtest/gtest.h>

#include <curl/curl.h>

#include <vector>

#include "../emulator/EmulatorTestSupport.h"
#include "OrvCurlURLSession.h"
#include "OrvOperationQueue.h"
#include "OrvOperationQueueTesting.h"

using namespace orv::test;
using orv::emulator::DiscoveryEmulator;

namespace {

const std::string kDomainPath = "/ads/root/domain/example.com/";

void expectCancelled(TaskOutcome& outcome) {
  ASSERT_TRUE(outcome.wait());
  std::lock_guard lock(outcome.mutex);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), OrvURLErrorDomain);
  EXPECT_EQ(outcome.error->code(), OrvURLErrorCancelled);
  EXPECT_FALSE(outcome.data);
  EXPECT_FALSE(outcome.response);
  EXPECT_NE(outcome.thread, std::this_thread::get_id());
}

std::int64_t errorCode(TaskOutcome& outcome) {
  std::lock_guard lock(outcome.mutex);
  return outcome.error ? outcome.error->code() : 0;
}

// Each test gets its own emulator, and a session that trusts it.
class OrvCurlURLSessionTest : public ::testing::Test {
 protected:
  std::unique_ptr<DiscoveryEmulator> emulator = startEmulator();
  std::string base = emulator ? emulator->baseURL() : "";

  void SetUp() override { ASSERT_TRUE(emulator); }
  std::shared_ptr<OrvCurlURLSession> newSession(OrvCurlURLSessionConfiguration configuration = {}) {
    configuration.caFile = emulator->tlsCAFile();
    auto session = OrvCurlURLSession::create(configuration);
    EXPECT_TRUE(session);
    return session;
  }
  // Answers to the domain query are held back, so that a request is still in flight when the test acts.
  void holdAnswers() { emulator->setFault(kDomainPath, {.delay = std::chrono::minutes(5)}); }
  bool arrived(const std::string& target) {
    return pollUntil([&] {
      const auto log = emulator->requests();
      return std::any_of(log.begin(), log.end(), [&](const auto& r) { return r.target == target; });
    });
  }
};

}  // namespace

TEST_F(OrvCurlURLSessionTest, DeliversStatusBodyAndHeadersOfRealAnswers) {
  auto session = newSession();
  auto request = requestFor(base + kDomainPath);
  // Field names are case-insensitive: a later value replaces an earlier one, none removes it, and empty
  // is a value, not an absence. (How header dictionaries are layered: the query operation tests.)
  request.setValueForHTTPHeaderField("first", "X-Transaction-Id");
  request.setValueForHTTPHeaderField("abc", "x-transaction-ID");
  request.setValueForHTTPHeaderField("gone", "X-Removed");
  request.setValueForHTTPHeaderField(std::nullopt, "x-removed");
  request.setValueForHTTPHeaderField("", "X-Empty");
  EXPECT_EQ(request.allHTTPHeaderFields().size(), 2u);
  EXPECT_EQ(request.valueForHTTPHeaderField("X-TRANSACTION-ID"), "abc");
  EXPECT_EQ(request.valueForHTTPHeaderField("X-Removed"), std::nullopt);
  auto ok = fetch(*session, request);
  ASSERT_EQ(ok->status(), 200);
  EXPECT_FALSE(ok->error);
  ASSERT_TRUE(ok->data);
  EXPECT_EQ(ok->response->URL(), request.URL());
  EXPECT_EQ(ok->response->valueForHTTPHeaderField("content-length"), std::to_string(ok->data->size()));
  EXPECT_TRUE(ok->response->valueForHTTPHeaderField("VARNEL-SIGNATURE"));
  const auto recorded = emulator->requests().back();
  EXPECT_EQ(recorded.header("x-transaction-id"), "abc");
  EXPECT_EQ(recorded.header("x-empty"), "");
  EXPECT_EQ(recorded.header("x-removed"), std::nullopt);

  // Other statuses are answers, not transport errors (the workflow tests see them as such), with their bodies.
  auto missing = fetch(*session, base + "/nothing/here");
  EXPECT_EQ(missing->status(), 404);
  EXPECT_FALSE(missing->error);
  EXPECT_TRUE(missing->data && !missing->data->empty());
}

// Body and header limits, time-outs, refused connections and untrusted peers: tests/faults.
TEST_F(OrvCurlURLSessionTest, CancelCompletesOnceWithTheCancelError) {
  auto session = newSession();

  // Before resume: the handler runs on the pool, and a later resume sends nothing.
  auto early = TaskOutcome::make();
  auto idle = session->dataTaskWithRequest(requestFor(base + "/early"), TaskOutcome::handler(early));
  idle->cancel();
  idle->resume();
  idle->cancel();
  expectCancelled(*early);

  // During: the request is held by the server when the cancel comes.
  holdAnswers();
  auto during = TaskOutcome::make();
  auto running = session->dataTaskWithRequest(requestFor(base + kDomainPath), TaskOutcome::handler(during));
  running->resume();
  ASSERT_TRUE(arrived(kDomainPath));
  running->cancel();
  running->cancel();
  expectCancelled(*during);
  EXPECT_NE(idle->taskIdentifier(), running->taskIdentifier());

  // When the hand-off to the pool cannot be allocated, the completion still comes, in place.
  auto starved = TaskOutcome::make();
  auto unlucky = session->dataTaskWithRequest(requestFor(base + "/starved"), TaskOutcome::handler(starved));
  orv::detail::failNextWorkerPoolDispatchesForTesting(1);
  unlucky->cancel();
  EXPECT_EQ(starved->callCount(), 1);
  EXPECT_EQ(errorCode(*starved), CURLE_OUT_OF_MEMORY);

  // The session still works afterwards, and nothing was delivered twice.
  EXPECT_EQ(fetch(*session, base + "/ads/root/publickey")->status(), 200);
  EXPECT_EQ(early->callCount(), 1);
  EXPECT_EQ(during->callCount(), 1);
  for (const auto& request : emulator->requests()) EXPECT_NE(request.target, "/early");
}

TEST_F(OrvCurlURLSessionTest, DestroyingOrInvalidatingTheSessionCancelsWhatIsInFlight) {
  holdAnswers();
  for (const bool invalidate : {false, true}) {
    auto session = newSession();
    auto inFlight = TaskOutcome::make();
    auto task = session->dataTaskWithRequest(requestFor(base + kDomainPath), TaskOutcome::handler(inFlight));
    task->resume();
    auto notStarted = TaskOutcome::make();
    auto later = session->dataTaskWithRequest(requestFor(base + kDomainPath), TaskOutcome::handler(notStarted));
    emulator->clearRequests();
    ASSERT_TRUE(arrived(kDomainPath));
    if (invalidate) {
      // Blocking: by the time it returns, the I/O thread is gone and the task has been answered.
      session->invalidateAndCancel();
      session->invalidateAndCancel();
    } else {
      session.reset();
    }
    expectCancelled(*inFlight);
    // A task that outlives its session (or its session's invalidation) can still be resumed and
    // cancelled; it completes once, cancelled.
    later->resume();
    expectCancelled(*notStarted);
    task->cancel();
    EXPECT_EQ(inFlight->callCount(), 1);
    EXPECT_EQ(notStarted->callCount(), 1);
  }
}

TEST_F(OrvCurlURLSessionTest, RefusesWhatItMustNeverSend) {
  auto session = newSession();
  // Plain http is never spoken.
  EXPECT_EQ(errorCode(*fetch(*session, "http://127.0.0.1:1/")), CURLE_UNSUPPORTED_PROTOCOL);
  // A header that would smuggle a second line is refused before anything is sent.
  auto injected = requestFor(base + "/ads/root/publickey");
  injected.setValueForHTTPHeaderField("x\r\nX-Evil: 1", "X-Note");
  EXPECT_EQ(errorCode(*fetch(*session, injected)), CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_TRUE(emulator->requests().empty());
}

// With HTTP/1.1 every request needs a connection of its own (the automatic version: the settings workflow tests).
TEST_F(OrvCurlURLSessionTest, RunsManyRequestsAtOnceOverHTTP11) {
  OrvCurlURLSessionConfiguration configuration;
  configuration.httpVersion = OrvCurlHTTPVersion::http1_1;
  auto session = newSession(configuration);
  std::vector<std::shared_ptr<TaskOutcome>> outcomes;
  std::vector<std::shared_ptr<OrvURLSessionDataTask>> tasks;
  for (int i = 0; i < 40; ++i) {
    outcomes.push_back(TaskOutcome::make());
    const std::string path = i % 2 ? kDomainPath : "/ads/root/domain/example.net/";
    tasks.push_back(session->dataTaskWithRequest(requestFor(base + path), TaskOutcome::handler(outcomes.back())));
  }
  for (auto& task : tasks) task->resume();
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    ASSERT_TRUE(outcomes[i]->wait());
    EXPECT_EQ(outcomes[i]->status(), 200);
    EXPECT_NE(outcomes[i]->data->find(i % 2 ? "example.com" : "example.net"), std::string::npos);
    EXPECT_EQ(outcomes[i]->callCount(), 1);
  }
}
