// Request traces: what a host's diagnostics delegate learns about a request, against the emulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "EmulatorHarness.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

const char* kCatalog = R"({
  "domains": {
    "example.com": {"domain": {"name": "example.com"}, "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}]}},
    "portal.eu.example.org": {"domain": {"name": "portal.eu.example.org"},
                              "kaleth": {"serviceUrls": [{"url": "https://portal.eu.example.org/store"}]}}
  },
  "stores": {
    "https://store.example.com:443/Store": {"ios": {"kaleth": {"name": "Store", "appSettings": {"ios": [{"settings": []}]}},
                                                    "url": {"name": "https://store.example.com:443/Store"}}}
  }
})";

class TraceCollector : public OrvAppConfigDiagnosticsDelegate {
 public:
  void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) override {
    onMainQueue = onMainQueue && OrvMainQueue::isCurrent();
    traces.push_back(std::move(trace));
  }
  std::vector<std::shared_ptr<const OrvAppConfigRequestTrace>> traces;
  bool onMainQueue = true;
};

const OrvAppConfigTraceStep* findStep(const OrvAppConfigRequestTrace& trace, std::string_view name, std::string_view url = "") {
  for (const auto& step : trace.steps) {
    if (step.name.starts_with(name) && step.url.value_or("").ends_with(url)) return &step;
  }
  return nullptr;
}

}  // namespace

TEST(DiagnosticsTraceTest, ArrivesOnTheMainQueueJustBeforeTheCompletionAndNamesTheProbe) {
  EmulatorHarness harness({kCatalog});
  auto collector = std::make_shared<TraceCollector>();
  harness.emulator().setFault("/ads/root/domain/example.com/", {.corruptSignature = true});
  EXPECT_EQ(discover(*harness.service, "user@example.com").status, 2u);
  EXPECT_TRUE(collector->traces.empty()) << "no delegate, no trace";

  harness.service->setDiagnosticsDelegate(collector);
  AutoDiscoveryCapture capture;
  std::size_t tracesBeforeCompletion = 99;
  harness.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0,
                                                       [&, block = capture.block()](auto status, auto record, auto error) {
                                                         tracesBeforeCompletion = collector->traces.size();
                                                         block(status, std::move(record), std::move(error));
                                                       });
  ASSERT_TRUE(capture.wait());
  EXPECT_EQ(std::get<0>(capture.values), 2u);
  ASSERT_EQ(collector->traces.size(), 1u);
  EXPECT_EQ(tracesBeforeCompletion, 1u) << "the trace arrives just before the completion block";
  EXPECT_TRUE(collector->onMainQueue);
  EXPECT_EQ(collector->traces[0]->status, 2u);
  // Which step failed, at which URL and by which rule, is read back through the command-line tool,
  // which keeps the trace this delegate gets and prints it with --explain and --json.

  // The probe of the whole host shows as its own step, between the two queries.
  harness.emulator().clearFaults();
  EXPECT_EQ(discover(*harness.service, "https://portal.eu.example.org/x").status, 0u);
  const auto& probed = *collector->traces.back();
  ASSERT_TRUE(findStep(probed, "auto-discover query", "/domain/example.org/"));
  EXPECT_EQ(findStep(probed, "auto-discover query", "/domain/example.org/")->httpStatus, 404);
  EXPECT_TRUE(findStep(probed, "fallback probe query", "/domain/portal.eu.example.org/"));
  EXPECT_TRUE(findStep(probed, "domain match") && findStep(probed, "domain match")->passed);

  harness.service->setDiagnosticsDelegate(nullptr);
  EXPECT_EQ(discover(*harness.service, "user@example.com").status, 0u);
  EXPECT_EQ(collector->traces.size(), 2u);
}

TEST(DiagnosticsTraceTest, SettingsThatFailWithoutAnErrorStillSayWhyForEachStore) {
  EmulatorHarness harness({kCatalog});
  auto collector = std::make_shared<TraceCollector>();
  harness.service->setDiagnosticsDelegate(collector);
  harness.emulator().setFault(settingsPath("https://store.example.com:443/Store"), {.dropMidBody = true});
  const auto failed = retrieve(*harness.service, {*OrvURL::URLWithString("https://store.example.com/Store"),
                                                  *OrvURL::URLWithString("https://gone.example.com/Store")});
  EXPECT_EQ(failed.status, 3u);
  EXPECT_EQ(failed.error, std::nullopt);

  ASSERT_EQ(collector->traces.size(), 1u);
  const auto& trace = *collector->traces[0];
  const auto* dropped = findStep(trace, "settings query for https://store.example.com/Store");
  const auto* missing = findStep(trace, "settings query for https://gone.example.com/Store");
  ASSERT_TRUE(dropped && missing);
  EXPECT_FALSE(dropped->passed);
  EXPECT_TRUE(dropped->error) << "the transport error of the store whose connection broke";
  EXPECT_EQ(missing->httpStatus, 404);
  EXPECT_TRUE(findStep(trace, "stores"));

  // A channel nobody publishes: the next request gets its own trace, which names the channel.
  harness.emulator().clearFaults();
  EXPECT_EQ(retrieve(*harness.service, {*OrvURL::URLWithString("https://store.example.com/Store")}, "beta").status, 3u);
  ASSERT_EQ(collector->traces.size(), 2u);
  EXPECT_THAT(collector->traces[1]->subject, ::testing::HasSubstr("channel \"beta\""));
}
