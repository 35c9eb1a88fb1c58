// The libcurl session against the emulator. Body and header limits, time-outs, refused connections and
// untrusted peers: tests/faults. Many requests at once: tests/workflows (80 settings queries at once on
// the emulator, which speaks HTTP/1.1 only) and tests/staging (HTTP/2).
#include <gtest/gtest.h>

#include <curl/curl.h>

#include "EmulatorHarness.h"
#include "OrvOperationQueueTesting.h"

using namespace orv::test;

namespace {

const std::string kDomainPath = "/ads/root/domain/example.com/";

// What one data task delivered; completions run on library threads, so waiting polls rather than runs the main queue.
struct Outcome : Capture<std::optional<OrvData>, std::shared_ptr<const OrvHTTPURLResponse>, std::optional<OrvError>> {
  bool done() {
    return pollUntil([this] { return calls > 0; });
  }
  std::int64_t status() const { return std::get<1>(values) ? std::get<1>(values)->statusCode() : 0; }
  std::int64_t errorCode() const { return std::get<2>(values) ? std::get<2>(values)->code() : 0; }
  void expectCancelled() {
    ASSERT_TRUE(done());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(errorCode(), OrvURLErrorCancelled);
    EXPECT_EQ(std::get<2>(values)->domain(), OrvURLErrorDomain);
    EXPECT_FALSE(std::get<0>(values) || std::get<1>(values));
    EXPECT_NE(thread, std::this_thread::get_id());
  }
};

OrvURLRequest requestFor(const std::string& url) { return OrvURLRequest(*OrvURL::URLWithString(url)); }

class OrvCurlURLSessionTest : public ::testing::Test {
 protected:
  EmulatorHarness harness;
  std::string base = harness.emulator().baseURL();

  std::shared_ptr<OrvURLSessionDataTask> task(OrvURLSession& session, const std::string& path, Outcome& outcome) {
    return session.dataTaskWithRequest(requestFor(base + path), outcome.block());
  }
  // Runs one request to its end.
  std::unique_ptr<Outcome> fetch(OrvURLSession& session, const OrvURLRequest& request) {
    auto outcome = std::make_unique<Outcome>();
    session.dataTaskWithRequest(request, outcome->block())->resume();
    EXPECT_TRUE(outcome->done()) << request.URL().absoluteString();
    return outcome;
  }
  // Answers to the domain query are held back, so that a request is still in flight when the test acts.
  void holdAnswers() { harness.emulator().setFault(kDomainPath, {.delay = std::chrono::minutes(5)}); }
  bool arrived() {
    return pollUntil([&] { return std::ranges::count(harness.requestPaths(), kDomainPath) > 0; });
  }
};

}  // namespace

TEST_F(OrvCurlURLSessionTest, DeliversStatusBodyAndHeadersOfRealAnswers) {
  // Plain http is never spoken, and a header that would smuggle a second line is refused before anything is sent.
  EXPECT_EQ(fetch(*harness.session, requestFor("http://127.0.0.1:1/"))->errorCode(), CURLE_UNSUPPORTED_PROTOCOL);
  auto request = requestFor(base + kDomainPath);
  request.setValueForHTTPHeaderField("x\r\nX-Evil: 1", "X-Note");
  EXPECT_EQ(fetch(*harness.session, request)->errorCode(), CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_TRUE(harness.emulator().requests().empty());
  request.setValueForHTTPHeaderField(std::nullopt, "X-Note");
  // Field names are case-insensitive: a later value replaces an earlier one, none removes it, and empty
  // is a value, not an absence. What the server received shows it.
  request.setValueForHTTPHeaderField("first", "X-Transaction-Id");
  request.setValueForHTTPHeaderField("abc", "x-transaction-ID");
  request.setValueForHTTPHeaderField("gone", "X-Removed");
  request.setValueForHTTPHeaderField(std::nullopt, "x-removed");
  request.setValueForHTTPHeaderField("", "X-Empty");
  EXPECT_EQ(request.allHTTPHeaderFields().size(), 2u);
  EXPECT_EQ(request.valueForHTTPHeaderField("X-Removed"), std::nullopt);
  const auto ok = fetch(*harness.session, request);
  ASSERT_EQ(ok->status(), 200);
  const auto& [data, response, error] = ok->values;
  EXPECT_FALSE(error);
  EXPECT_EQ(response->URL(), request.URL());
  EXPECT_EQ(response->valueForHTTPHeaderField("content-length"), std::to_string(data.value_or("").size()));
  EXPECT_TRUE(response->valueForHTTPHeaderField("VARNEL-SIGNATURE"));
  const auto recorded = harness.emulator().requests().back();
  EXPECT_EQ(recorded.header("x-transaction-id"), "abc");
  EXPECT_EQ(recorded.header("x-empty"), "");
  EXPECT_EQ(recorded.header("x-removed"), std::nullopt);

  // Other statuses are answers, not transport errors, with their bodies.
  const auto missing = fetch(*harness.session, requestFor(base + "/nothing/here"));
  EXPECT_EQ(missing->status(), 404);
  EXPECT_FALSE(std::get<2>(missing->values) || std::get<0>(missing->values).value_or("").empty());
  EXPECT_FALSE(std::get<1>(missing->values)->valueForHTTPHeaderField("Varnel-Signature"));
  // Methods other than GET go out as given: the emulator serves GET only.
  auto deletion = requestFor(base + "/ads/root/publickey");
  deletion.setHTTPMethod("DELETE");
  EXPECT_EQ(fetch(*harness.session, deletion)->status(), 405);
}

TEST_F(OrvCurlURLSessionTest, CancelCompletesOnceWithTheCancelError) {
  auto& session = *harness.session;
  // Before resume: the handler runs on the pool, and a later resume sends nothing.
  Outcome early, during, starved;
  auto idle = task(session, "/early", early);
  idle->cancel();
  idle->resume();
  idle->cancel();
  early.expectCancelled();

  // During: the request is held by the server when the cancel comes.
  holdAnswers();
  auto running = task(session, kDomainPath, during);
  running->resume();
  ASSERT_TRUE(arrived());
  running->cancel();
  running->cancel();
  during.expectCancelled();
  EXPECT_NE(idle->taskIdentifier(), running->taskIdentifier());

  // When the hand-off to the pool cannot be allocated, the completion still comes, in place.
  auto unlucky = task(session, "/starved", starved);
  orv::detail::failNextWorkerPoolDispatchesForTesting(1);
  unlucky->cancel();
  EXPECT_EQ(starved.calls, 1);
  EXPECT_EQ(starved.errorCode(), CURLE_OUT_OF_MEMORY);

  // The session still works afterwards, and nothing was delivered twice.
  EXPECT_EQ(fetch(session, requestFor(base + "/ads/root/publickey"))->status(), 200);
  EXPECT_EQ(early.calls + during.calls, 2);
  for (const auto& path : harness.requestPaths()) EXPECT_NE(path, "/early");
}

TEST_F(OrvCurlURLSessionTest, DestroyingOrInvalidatingTheSessionCancelsWhatIsInFlight) {
  holdAnswers();
  std::thread::id firstIOThread{};
  for (const bool invalidate : {false, true}) {
    // Every other session leaves the version to negotiation; forcing HTTP/1.1 changes nothing here.
    auto session =
        OrvCurlURLSession::create({.caFile = harness.emulator().tlsCAFile(), .httpVersion = OrvCurlHTTPVersion::http1_1});
    Outcome inFlight, notStarted;
    // Cleared before the request starts: cleared after, a request that had already arrived would be lost.
    harness.emulator().clearRequests();
    auto running = task(*session, kDomainPath, inFlight);
    running->resume();
    auto later = task(*session, kDomainPath, notStarted);
    ASSERT_TRUE(arrived());
    // Work handed to the session runs on its I/O thread, the one that answers, while a request is held.
    std::atomic<std::thread::id> ranOn{};
    std::function<void()> work = [&ranOn] { ranOn = std::this_thread::get_id(); };
    ASSERT_TRUE(session->performOnCallbackThread(work));
    ASSERT_TRUE(pollUntil([&] { return ranOn.load() != std::thread::id{}; }));
    EXPECT_NE(ranOn.load(), std::this_thread::get_id());
    // A few answers are handled where they arrived, on the I/O thread, though a transfer is in flight.
    EXPECT_EQ(fetch(*session, requestFor(base + "/ads/root/publickey"))->thread, ranOn.load());
    // The second session runs on the thread the first left idle once it was let go.
    if (invalidate) {
      EXPECT_EQ(ranOn.load(), firstIOThread);
    }
    firstIOThread = ranOn.load();
    if (invalidate) {
      // Blocking: by the time it returns, the I/O loop has ended and the task has been answered.
      session->invalidateAndCancel();
      session->invalidateAndCancel();
      // A stopped session takes no work and leaves it with the caller.
      std::function<void()> refused = [] {};
      EXPECT_FALSE(session->performOnCallbackThread(refused));
      EXPECT_TRUE(refused);
    } else {
      session.reset();
    }
    inFlight.expectCancelled();
    // A task that outlives its session (or its session's invalidation) can still be resumed and
    // cancelled; it completes once, cancelled.
    later->resume();
    notStarted.expectCancelled();
    running->cancel();
    EXPECT_EQ(inFlight.calls, 1);
  }
}

TEST_F(OrvCurlURLSessionTest, SessionsMadeAndReleasedOnManyThreadsAtOnceEachGetALoopOfTheirOwn) {
  // Sessions come and go on four threads at once, so that loop threads are taken, left idle, ended and
  // joined concurrently; each session's work must run on a thread of the library's, and once.
  std::atomic<int> ran{0};
  std::vector<std::thread> hosts;
  for (int host = 0; host < 4; ++host) {
    hosts.emplace_back([&] {
      for (int round = 0; round < 25; ++round) {
        auto session = OrvCurlURLSession::create({.caFile = harness.emulator().tlsCAFile()});
        ASSERT_TRUE(session);
        std::atomic<std::thread::id> ranOn{};
        std::function<void()> work = [&ranOn] { ranOn = std::this_thread::get_id(); };
        ASSERT_TRUE(session->performOnCallbackThread(work));
        ASSERT_TRUE(pollUntil([&] { return ranOn.load() != std::thread::id{}; }));
        EXPECT_NE(ranOn.load(), std::this_thread::get_id());
        ++ran;
        if (round % 2) session->invalidateAndCancel();
      }
    });
  }
  for (auto& host : hosts) host.join();
  EXPECT_EQ(ran.load(), 100);
  // A session made afterwards still gets a loop, and answers.
  auto session = OrvCurlURLSession::create({.caFile = harness.emulator().tlsCAFile()});
  EXPECT_EQ(fetch(*session, requestFor(base + "/ads/root/publickey"))->status(), 200);
}
