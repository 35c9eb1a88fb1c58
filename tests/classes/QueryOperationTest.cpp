#include <gtest/gtest.h>

#include <atomic>

#include "OrvAppConfigAutoDiscoverOperation.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"
#include "OrvAppConfigRequestTrace.h"
#include "OrvOperationQueue.h"
#include "OrvOperationQueueTesting.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

const char* kRecordBody = R"({"domain":{"name":"example.com"},"kaleth":{"serviceUrls":[{"url":"https://svc.example.com"}]}})";

// Runs an operation on a queue and waits for its completion block.
void runToCompletion(const std::shared_ptr<OrvOperation>& operation, bool cancelFirst = false) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  operation->setCompletionBlock([done] { *done = true; });
  if (cancelFirst) operation->cancel();
  OrvOperationQueue queue("test");
  queue.addOperation(operation);
  ASSERT_TRUE(pollUntil([&] { return done->load(); }));
}

std::shared_ptr<FakeURLSession> answering(FakeResponse response) {
  return std::make_shared<FakeURLSession>([response](const OrvURLRequest&) { return response; });
}

std::shared_ptr<OrvAppConfigAutoDiscoverOperation> autoDiscover(std::shared_ptr<FakeURLSession> session,
                                                                std::optional<std::string> input = "user@example.com") {
  auto headers = std::make_shared<StaticHeaderProvider>();
  headers->monitoring = {{"X-Monitor", "m"}, {"X-Shared", "from-monitoring"}};
  headers->transaction = {{"X-Transaction-Id", "t-1"}, {"X-Shared", "from-transaction"}};
  return OrvAppConfigAutoDiscoverOperation::initWithUserInput(std::move(input), 0, 0, std::move(session), headers);
}

}  // namespace

// Statuses and transport errors on the real stack (204, 500, refused connections, ...) are the fault
// matrix's rows; these are the answers no real server gives on demand, and what the operation keeps of each.
TEST(OrvAppConfigQueryOperationTest, AnswerTable) {
  const DiscoveryHostsOverride hosts("prod.example.net");
  auto log = LogCollector::install();
  const OrvError transport(OrvURLErrorDomain, 7, {{OrvLocalizedDescriptionKey, "Couldn't connect to server"}});
  const std::tuple<FakeResponse, OrvAppConfigQueryOperationCompletionStatus, bool> cases[] = {
      {{OrvData(kRecordBody), 200, {{"VARNEL-SIGNATURE", "aGVhZA.c2ln"}}}, 0, false},
      {{std::nullopt, 200, {}}, 2, false},
      {{OrvData("not json"), 200, {}}, 3, true},
      {{OrvData(R"({"kaleth":{"serviceUrls":[]}})"), 200, {}}, 3, false},
      // A 200 with a body is good even when an error comes with it.
      {{OrvData(kRecordBody), 200, {}, transport}, 0, false},
  };
  for (const auto& [response, status, hasError] : cases) {
    SCOPED_TRACE(testing::Message() << response.statusCode << " " << response.body.value_or("(none)"));
    auto session = answering(response);
    auto operation = autoDiscover(session);
    runToCompletion(operation);
    EXPECT_EQ(operation->completionStatus(), status);
    EXPECT_EQ(operation->completionError().has_value(), hasError);
    EXPECT_EQ(operation->autoDiscoverRecord() != nullptr, status == 0);
    EXPECT_EQ(operation->responseData(), status == 0 ? response.body : std::nullopt);
    EXPECT_EQ(operation->varnelSignatureHeader(),
              status == 0 && !response.headers.empty() ? std::optional<std::string>("aGVhZA.c2ln") : std::nullopt);
    const auto request = session->requests().at(0);
    EXPECT_EQ(request.valueForHTTPHeaderField("x-monitor"), "m");
    // A field of the same name is replaced, the others are left: the transaction header, applied last, wins.
    EXPECT_EQ(request.valueForHTTPHeaderField("X-Shared"), "from-transaction");
  }
  // Each line names the method that wrote it, never a closure inside it.
  for (const auto& line : log->lines()) EXPECT_EQ(line.function.find("<lambda"), std::string::npos) << line.message;
}

// None of these sends a request: a query cancelled before it starts, one whose input gives no URL, and
// one of a service built without a session, which fails instead of crashing. A traced request says of a
// step that never ran that it was cancelled, rather than leaving it out.
TEST(OrvAppConfigQueryOperationTest, CancelledBeforeStartAndNoURLOrSessionMakeNoRequest) {
  auto session = answering({});
  const auto recorder =
      std::make_shared<orv::detail::RequestTraceRecorder>(OrvAppConfigRequestTrace::Kind::autoDiscovery, "test", nullptr);
  const std::tuple<std::shared_ptr<OrvAppConfigAutoDiscoverOperation>, OrvAppConfigQueryOperationCompletionStatus, std::int64_t>
      cases[] = {{autoDiscover(session), OrvAppConfigQueryOperationCompletionStatusCancelled, 0},
                 {autoDiscover(session, ""), OrvAppConfigQueryOperationCompletionStatusCouldNotBuildUrl, 0},
                 {autoDiscover(nullptr), OrvAppConfigQueryOperationCompletionStatusInvalidResponse, OrvURLErrorNoSession}};
  for (const auto& [operation, status, errorCode] : cases) {
    operation->setTraceRecorder(recorder, "auto-discover query");
    runToCompletion(operation, /*cancelFirst=*/status == OrvAppConfigQueryOperationCompletionStatusCancelled);
    EXPECT_EQ(operation->completionStatus(), status);
    EXPECT_EQ(operation->completionError().value_or(OrvError("none", 0)).code(), errorCode) << status;
  }
  EXPECT_EQ(session->requests().size(), 0u);
  const auto trace = recorder->finish(0, std::nullopt);
  ASSERT_EQ(trace->steps.size(), 3u);
  EXPECT_FALSE(trace->steps[0].passed);
  EXPECT_TRUE(trace->steps[0].detail.starts_with("cancelled before an answer")) << trace->steps[0].detail;
  EXPECT_EQ(OrvAppConfigQueryOperation::descriptionForCompletionStatus(9),
            "Unknown OrvAppConfigQueryOperationCompletionStatus of 9");
}

// The certificate the real security service accepts is the workflow tests'; here the answers it never sees.
TEST(OrvAppConfigGetSigningCertificateOperationTest, HostTypesAndAnswers) {
  const DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net");
  struct CertificateFactory : OrvSecurityServiceProtocol {
    std::vector<std::string> contents;
    OrvCertificateRef createCertificateFromCertificateContent(std::string_view content) override {
      contents.emplace_back(content);
      return nullptr;
    }
    void asyncValidateJWTWithJwtPayload(std::string, std::optional<std::string>, std::optional<std::string>, OrvCertificateRef,
                                        std::shared_ptr<const AdditionalCertificateValidationOptions>,
                                        OrvJWTValidationCompletionBlock) override {}
  };
  auto factory = std::make_shared<CertificateFactory>();
  const auto make = [&](std::uint64_t hostType, const char* body) {
    return OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(
        factory, answering({OrvData(body), 200, {{"Varnel-Signature", "a.b"}}}), hostType, nullptr);
  };
  EXPECT_EQ(make(1, "")->appConfigRequestURL()->absoluteString(), "https://stage.example.net/ads/root/publickey");
  EXPECT_EQ(make(0, "")->appConfigRequestURL()->absoluteString(), "https://prod.example.net/ads/root/publickey");
  EXPECT_EQ(make(2, "")->appConfigRequestURL()->absoluteString(), "https://prod.example.net/ads/root/publickey");

  // The factory refuses everything: a present certificate member still ends in status 3 with no error;
  // only text that is no JSON is an error.
  for (const char* body : {R"({"certificate":"PEM TEXT","other":1})", "{}", R"({"certificate":5})", R"({"certificate":null})",
                           "[1]", "certificate"}) {
    SCOPED_TRACE(body);
    auto op = make(0, body);
    runToCompletion(op);
    EXPECT_EQ(op->completionStatus(), 3u);
    EXPECT_EQ(op->completionError().has_value(), std::string_view(body) == "certificate");
    // Its own answer is never kept for signature checking.
    EXPECT_EQ(op->varnelSignatureHeader(), std::nullopt);
    EXPECT_EQ(op->responseData(), std::nullopt);
  }
  EXPECT_EQ(factory->contents, std::vector<std::string>{"PEM TEXT"});

  // An answer read before is known by its exact bytes: the same text gives the same content again, and
  // text that differs anywhere, or only goes on longer, is read afresh.
  factory->contents.clear();
  for (const char* body : {R"({"certificate":"KEY A"})", R"({"certificate":"KEY A"})", R"({"certificate":"KEY B"})",
                           R"({"certificate":"KEY A"} )", R"({"certificate":"KEY A"}x)"}) {
    runToCompletion(make(0, body));
  }
  EXPECT_EQ(factory->contents, (std::vector<std::string>{"KEY A", "KEY A", "KEY B", "KEY A"}));
}

// Running out of memory while an answer is handled, or while the operation's end is handed to the
// pool, still ends the operation exactly once, with an error that says so.
TEST(OrvAppConfigQueryOperationTest, AllocationFailuresWhileCompletingStillEndTheOperation) {
  struct Starved : OrvAppConfigQueryOperation {
    using OrvAppConfigQueryOperation::OrvAppConfigQueryOperation;
    std::optional<OrvURL> appConfigRequestURL() override { return OrvURL::URLWithString("https://prod.example.net/x"); }
    bool parseHttp200ResponseData(const OrvData&, std::optional<OrvError>*) override { throw std::bad_alloc(); }
  };
  auto operation = std::make_shared<Starved>(answering({OrvData("{}"), 200, {}}), 0, nullptr);
  runToCompletion(operation);
  EXPECT_EQ(operation->completionStatus(), OrvAppConfigQueryOperationCompletionStatusInvalidResponse);
  EXPECT_EQ(operation->completionError().value_or(OrvError("none", 0)).code(), OrvURLErrorOutOfMemory);

  // The completion block cannot be handed to the pool: it runs in place rather than never.
  auto calls = std::make_shared<std::atomic<int>>(0);
  auto plain = OrvBlockOperation::blockOperationWithBlock([] {});
  plain->setCompletionBlock([calls] { ++*calls; });
  orv::detail::failNextWorkerPoolDispatchesForTesting(1);
  plain->start();
  EXPECT_EQ(calls->load(), 1);
}
