// Request traces: what a host's diagnostics delegate learns about a request, against the emulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvSDKStringUtils.h"
#include "TestSupport.h"

using namespace orv::test;
using ::testing::HasSubstr;

namespace {

const char* kCatalog = R"({
  "domains": {
    "example.com": {"domain": {"name": "example.com"}, "kaleth": {"serviceUrls": [{"url": "https://store.example.com/Store"}]}},
    "portal.eu.example.org": {"domain": {"name": "portal.eu.example.org"},
                              "kaleth": {"serviceUrls": [{"url": "https://portal.eu.example.org/store"}]}}
  },
  "stores": {
    "https://store.example.com:443/Store": {"ios": {"kaleth": {"appSettings": {"ios": []}},
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

TEST(DiagnosticsTraceTest, NamesTheURLAndRuleThatFailedWithoutChangingTheOutcome) {
  EmulatorHarness harness({kCatalog});
  auto collector = std::make_shared<TraceCollector>();
  std::size_t tracesBeforeCompletion = 99;
  const auto discover = [&](const char* input) {
    Capture<OrvAppConfigServiceCompletionStatus, std::shared_ptr<OrvAppConfigAutoDiscoverRecord>, std::optional<OrvError>>
        capture;
    harness.service->asyncStartAutodiscoveryForUserInput(input, 0,
                                                         [&, block = capture.block()](auto status, auto record, auto error) {
                                                           tracesBeforeCompletion = collector->traces.size();
                                                           block(status, std::move(record), std::move(error));
                                                         });
    EXPECT_TRUE(capture.wait());
    return std::get<0>(capture.values);
  };

  orv::emulator::FaultSpec badSignature;
  badSignature.corruptSignature = true;
  harness.emulator().setFault("/ads/root/domain/example.com/", badSignature);
  EXPECT_EQ(discover("user@example.com"), 2u);
  EXPECT_TRUE(collector->traces.empty()) << "no delegate, no trace";

  harness.service->setDiagnosticsDelegate(collector);
  EXPECT_EQ(discover("user@example.com"), 2u);
  ASSERT_EQ(collector->traces.size(), 1u);
  EXPECT_EQ(tracesBeforeCompletion, 1u) << "the trace arrives just before the completion block";
  EXPECT_TRUE(collector->onMainQueue);
  const auto& forged = *collector->traces[0];
  EXPECT_EQ(forged.status, 2u);
  const auto* signature = findStep(forged, "signature", "/ads/root/domain/example.com/");
  ASSERT_TRUE(signature);
  EXPECT_FALSE(signature->passed);
  EXPECT_EQ(signature->rule, OrvSecurityUtilsResultSignatureMismatch);
  EXPECT_THAT(forged.explanation(), HasSubstr("rule 15 OrvSecurityUtilsResultSignatureMismatch"));
  const auto json = boost::json::parse(forged.JSONString()).as_object();
  EXPECT_EQ(json.at("steps").as_array().size(), forged.steps.size());

  // The probe of the whole host shows as its own step, between the two queries.
  harness.emulator().clearFaults();
  EXPECT_EQ(discover("https://portal.eu.example.org/x"), 0u);
  const auto& probed = *collector->traces.back();
  ASSERT_TRUE(findStep(probed, "auto-discover query", "/domain/example.org/"));
  EXPECT_EQ(findStep(probed, "auto-discover query", "/domain/example.org/")->httpStatus, 404);
  EXPECT_TRUE(findStep(probed, "fallback probe query", "/domain/portal.eu.example.org/"));
  EXPECT_TRUE(findStep(probed, "domain match") && findStep(probed, "domain match")->passed);

  harness.service->setDiagnosticsDelegate(nullptr);
  EXPECT_EQ(discover("user@example.com"), 0u);
  EXPECT_EQ(collector->traces.size(), 2u);
}

TEST(DiagnosticsTraceTest, SettingsThatFailWithoutAnErrorStillSayWhyForEachStore) {
  EmulatorHarness harness({kCatalog});
  auto collector = std::make_shared<TraceCollector>();
  harness.service->setDiagnosticsDelegate(collector);
  orv::emulator::FaultSpec drop;
  drop.dropMidBody = true;
  harness.emulator().setFault(
      "/ads/root/url/" + *OrvBase64URLEncodedStringFromString("https://store.example.com:443/Store") + "/product/kaleth/os/ios",
      drop);

  Capture<OrvAppConfigServiceCompletionStatus, std::optional<OrvAppConfigStoreSettingsDictionary>, std::optional<OrvError>>
      capture;
  harness.service->asyncStartSettingsRetrievalForStoreUrls(
      {*OrvURL::URLWithString("https://store.example.com/Store"), *OrvURL::URLWithString("https://gone.example.com/Store")}, 0, 0,
      capture.block());
  ASSERT_TRUE(capture.wait());
  EXPECT_EQ(std::get<0>(capture.values), 3u);
  EXPECT_EQ(std::get<2>(capture.values), std::nullopt);

  ASSERT_EQ(collector->traces.size(), 1u);
  const auto& trace = *collector->traces[0];
  const auto* dropped = findStep(trace, "settings query for https://store.example.com/Store");
  const auto* missing = findStep(trace, "settings query for https://gone.example.com/Store");
  ASSERT_TRUE(dropped && missing);
  EXPECT_FALSE(dropped->passed);
  EXPECT_TRUE(dropped->error) << "the transport error of the store whose connection broke";
  EXPECT_EQ(missing->httpStatus, 404);
  EXPECT_TRUE(findStep(trace, "stores"));
}
