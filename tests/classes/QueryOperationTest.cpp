#include <gtest/gtest.h>

#include <atomic>

#include "OrvAppConfigAutoDiscoverOperation.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"
#include "OrvAppConfigRequestTrace.h"
#include "OrvOperationQueue.h"
#include "OrvOperationQueueTesting.h"
#include "TestSupport.h"

using orv::test::FakeResponse;
using orv::test::FakeURLSession;

namespace {

const char* kRecordBody = R"({"domain":{"name":"example.com"},"kaleth":{"serviceUrls":[{"url":"https://svc.example.com"}]}})";

// Runs an operation on a queue and waits for its completion block.
void runToCompletion(const std::shared_ptr<OrvOperation>& operation, bool cancelFirst = false) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  operation->setCompletionBlock([done] { *done = true; });
  if (cancelFirst) operation->cancel();
  OrvOperationQueue queue("test");
  queue.addOperation(operation);
  ASSERT_TRUE(orv::test::pollUntil([&] { return done->load(); }));
}

std::shared_ptr<OrvAppConfigAutoDiscoverOperation> autoDiscover(std::shared_ptr<FakeURLSession> session,
                                                                std::optional<std::string> input = "user@example.com") {
  auto headers = std::make_shared<orv::test::StaticHeaderProvider>();
  headers->monitoring = {{"X-Monitor", "m"}, {"X-Shared", "from-monitoring"}};
  headers->transaction = {{"X-Transaction-Id", "t-1"}, {"X-Shared", "from-transaction"}};
  return OrvAppConfigAutoDiscoverOperation::initWithUserInput(std::move(input), 0, 0, std::move(session), headers);
}

struct StatusCase {
  FakeResponse response;
  OrvAppConfigQueryOperationCompletionStatus status;
  bool hasError;
  const char* logged;
};

}  // namespace

TEST(OrvAppConfigQueryOperationTest, AnswerTable) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net");
  auto log = orv::test::LogCollector::install();
  const OrvError transport(OrvURLErrorDomain, 7, {{OrvLocalizedDescriptionKey, "Couldn't connect to server"}});
  const std::vector<StatusCase> cases = {
      {{OrvData(kRecordBody), 200, {{"varnel-signature", "h.s"}}},
       0,
       false,
       "Saving Varnel-Signature header and response data for later validation"},
      {{OrvData(kRecordBody), 204, {}}, 2, false, "URL request for AutoDiscover failed with status code: 204"},
      {{std::nullopt, 200, {}}, 2, false, "URL request for AutoDiscover failed with status code: 200"},
      {{OrvData("oops"), 500, {}}, 2, false, "URL request for AutoDiscover failed with status code: 500"},
      {{std::nullopt, 0, {}, transport}, 2, true, nullptr},
      {{OrvData("not json"), 200, {}}, 3, true, nullptr},
      {{OrvData(R"({"kaleth":{"serviceUrls":[]}})"), 200, {}}, 3, false, "Parsing store records failed with error: (null)"},
      // A 200 with a body is good even when an error comes with it.
      {{OrvData(kRecordBody), 200, {}, transport}, 0, false, nullptr},
  };
  for (const auto& c : cases) {
    auto session = std::make_shared<FakeURLSession>([&](const OrvURLRequest&) { return c.response; });
    auto operation = autoDiscover(session);
    runToCompletion(operation);
    EXPECT_EQ(operation->completionStatus(), c.status) << c.response.statusCode;
    EXPECT_EQ(operation->completionError().has_value(), c.hasError) << c.response.statusCode;
    if (c.logged) {
      EXPECT_TRUE(log->contains(c.logged)) << c.logged;
    }
    if (c.status != 0) {
      EXPECT_EQ(operation->autoDiscoverRecord(), nullptr);
      EXPECT_EQ(operation->varnelSignatureHeader(), std::nullopt);
      EXPECT_EQ(operation->responseData(), std::nullopt);
    }
  }
  EXPECT_TRUE(log->contains("URL request for AutoDiscover failed with error: " + transport.description()));
  // Each line names the method that wrote it, never a closure inside it.
  for (const auto& line : log->lines()) {
    EXPECT_EQ(line.function.find("<lambda"), std::string::npos) << line.message << ": " << line.function;
    EXPECT_TRUE(!line.message.starts_with("Completing operation") ||
                line.function.find("::completeOperationWithStatus(") != std::string::npos);
  }
}

TEST(OrvAppConfigQueryOperationTest, GoodAnswerCapturesSignatureAndSendsProviderHeaders) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net");
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) {
    return FakeResponse{OrvData(kRecordBody), 200, {{"VARNEL-SIGNATURE", "aGVhZA.c2ln"}}};
  });
  auto operation = autoDiscover(session);
  EXPECT_EQ(operation->requestedDomain(), "example.com");
  runToCompletion(operation);
  ASSERT_EQ(operation->completionStatus(), 0u);
  EXPECT_EQ(operation->varnelSignatureHeader(), "aGVhZA.c2ln");
  EXPECT_EQ(operation->responseData(), OrvData(kRecordBody));
  ASSERT_NE(operation->autoDiscoverRecord(), nullptr);
  const auto request = session->requests().at(0);
  EXPECT_EQ(request.URL().absoluteString(), "https://prod.example.net/ads/root/domain/example.com/");
  EXPECT_EQ(request.HTTPMethod(), "GET");
  EXPECT_EQ(request.valueForHTTPHeaderField("x-monitor"), "m");
  EXPECT_EQ(request.valueForHTTPHeaderField("X-Transaction-Id"), "t-1");
  // setHeaders replaces a field of the same name and leaves the others: the transaction header,
  // applied last, wins.
  EXPECT_EQ(request.valueForHTTPHeaderField("X-Shared"), "from-transaction");
}

TEST(OrvAppConfigQueryOperationTest, CancelledBeforeStartAndNoURLMakeNoRequest) {
  auto log = orv::test::LogCollector::install();
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{}; });
  auto cancelled = autoDiscover(session);
  // A traced request says of a step that never ran that it was cancelled, rather than leaving it out.
  const auto recorder =
      std::make_shared<orv::detail::RequestTraceRecorder>(OrvAppConfigRequestTrace::Kind::autoDiscovery, "test", nullptr);
  cancelled->setTraceRecorder(recorder, "auto-discover query");
  runToCompletion(cancelled, /*cancelFirst=*/true);
  EXPECT_EQ(cancelled->completionStatus(), OrvAppConfigQueryOperationCompletionStatusCancelled);
  EXPECT_EQ(cancelled->completionError(), std::nullopt);
  EXPECT_TRUE(log->contains("Operation for AutoDiscover was cancelled before start."));
  const auto trace = recorder->finish(cancelled->completionStatus(), std::nullopt);
  ASSERT_EQ(trace->steps.size(), 1u);
  EXPECT_FALSE(trace->steps[0].passed);
  EXPECT_TRUE(trace->steps[0].detail.starts_with("cancelled before an answer")) << trace->steps[0].detail;

  auto empty = autoDiscover(session, "");
  EXPECT_TRUE(log->contains("Unable to build auto discover URL based on user input"));
  EXPECT_EQ(empty->requestedDomain(), std::nullopt);
  empty->setTraceRecorder(recorder, "auto-discover query");
  runToCompletion(empty);
  EXPECT_EQ(empty->completionStatus(), OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl);
  EXPECT_EQ(empty->completionError(), std::nullopt);
  EXPECT_TRUE(log->contains("Unable to build URL for AutoDiscover"));
  EXPECT_EQ(session->requests().size(), 0u);
  ASSERT_EQ(recorder->finish(empty->completionStatus(), std::nullopt)->steps.size(), 2u);
  EXPECT_EQ(OrvAppConfigQueryOperation::descriptionForCompletionStatus(9),
            "Unknown OrvAppConfigQueryOperationCompletionStatus of 9");

  // A service built without a session fails its queries instead of crashing.
  auto sessionless = autoDiscover(nullptr);
  runToCompletion(sessionless);
  EXPECT_EQ(sessionless->completionStatus(), OrvAppConfigQueryOperationCompletionStatusInvalidResponse);
  ASSERT_TRUE(sessionless->completionError());
  EXPECT_EQ(sessionless->completionError()->code(), OrvURLErrorNoSession);
}

namespace {

class CertificateFactory : public OrvSecurityServiceProtocol {
 public:
  OrvCertificateRef certificate;
  std::vector<std::string> contents;
  OrvCertificateRef createCertificateFromCertificateContent(std::string_view content) override {
    contents.emplace_back(content);
    return certificate;
  }
  void asyncValidateJWTWithJwtPayload(std::string, std::optional<std::string>, std::optional<std::string>, OrvCertificateRef,
                                      std::shared_ptr<const AdditionalCertificateValidationOptions>,
                                      OrvJWTValidationCompletionBlock) override {}
};

}  // namespace

TEST(OrvAppConfigGetSigningCertificateOperationTest, HostTypesAndAnswers) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net");
  auto log = orv::test::LogCollector::install();
  auto factory = std::make_shared<CertificateFactory>();
  const auto make = [&](std::uint64_t hostType, const char* body) {
    auto session = std::make_shared<FakeURLSession>([body](const OrvURLRequest&) {
      return FakeResponse{OrvData(body), 200, {{"Varnel-Signature", "a.b"}}};
    });
    return OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(factory, session, hostType, nullptr);
  };
  EXPECT_EQ(make(1, "")->appConfigRequestURL()->absoluteString(), "https://stage.example.net/ads/root/publickey");
  EXPECT_EQ(make(0, "")->appConfigRequestURL()->absoluteString(), "https://prod.example.net/ads/root/publickey");
  EXPECT_EQ(make(2, "")->appConfigRequestURL()->absoluteString(), "https://prod.example.net/ads/root/publickey");

  // The factory refuses everything: a present certificate member still ends in status 3 with no error.
  auto refused = make(0, R"({"certificate":"PEM TEXT","other":1})");
  runToCompletion(refused);
  EXPECT_EQ(refused->completionStatus(), 3u);
  EXPECT_EQ(refused->completionError(), std::nullopt);
  EXPECT_EQ(factory->contents.back(), "PEM TEXT");
  EXPECT_TRUE(log->contains("Failed to extract the signing certificate from the response content"));

  const std::pair<const char*, const char*> failures[] = {
      {"{}", "Unable to extract certificate content from the public key response"},
      {R"({"certificate":5})", nullptr},
      {R"({"certificate":null})", nullptr},
      {"[1]", "Response object was not a dictionary - unable to parse certificate from public key response"},
      {"certificate", nullptr}};
  for (const auto& [body, logged] : failures) {
    auto op = make(0, body);
    runToCompletion(op);
    EXPECT_EQ(op->completionStatus(), 3u) << body;
    EXPECT_EQ(op->completionError().has_value(), body == failures[4].first) << "only text that is no JSON is an error";
    if (logged) {
      EXPECT_TRUE(log->contains(logged)) << logged;
    }
    // Its own answer is never kept for signature checking.
    EXPECT_EQ(op->varnelSignatureHeader(), std::nullopt);
    EXPECT_EQ(op->responseData(), std::nullopt);
  }
}

// Running out of memory while an answer is handled, or while the operation's end is handed to the
// pool, still ends the operation exactly once, with an error that says so.
TEST(OrvAppConfigQueryOperationTest, AllocationFailuresWhileCompletingStillEndTheOperation) {
  struct Starved : OrvAppConfigQueryOperation {
    using OrvAppConfigQueryOperation::OrvAppConfigQueryOperation;
    std::optional<OrvURL> appConfigRequestURL() override { return OrvURL::URLWithString("https://prod.example.net/x"); }
    bool parseHttp200ResponseData(const OrvData&, std::optional<OrvError>*) override { throw std::bad_alloc(); }
  };
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{OrvData("{}"), 200, {}}; });
  auto operation = std::make_shared<Starved>(session, 0, nullptr);
  runToCompletion(operation);
  EXPECT_EQ(operation->completionStatus(), OrvAppConfigQueryOperationCompletionStatusInvalidResponse);
  ASSERT_TRUE(operation->completionError());
  EXPECT_EQ(operation->completionError()->code(), OrvURLErrorOutOfMemory);

  // The completion block cannot be handed to the pool: it runs in place rather than never.
  auto calls = std::make_shared<std::atomic<int>>(0);
  auto plain = OrvBlockOperation::blockOperationWithBlock([] {});
  plain->setCompletionBlock([calls] { ++*calls; });
  orv::detail::failNextWorkerPoolDispatchesForTesting(1);
  plain->start();
  EXPECT_EQ(calls->load(), 1);
}
