// Settings for a set of stores, against the emulator over TLS on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvAppConfigSettingsRecord.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

boost::json::object answer(const std::string& name, std::optional<std::string> channel = std::nullopt) {
  boost::json::object settings{
      {"kaleth",
       {{"name", "Store"},
        {"appSettings", {{"ios", {{{"category", "General"}, {"settings", {{{"name", "A"}, {"value", 1}}}}}}}}}}},
      {"url", {{"name", name}}}};
  if (channel) settings["settingsChannel"] = boost::json::object{{"channelName", *channel}};
  return settings;
}

// Stores 0..count-1 at https://storeN.example.com/Store, each answering about itself; plus the odd ones.
std::string catalog(int count) {
  boost::json::object stores;
  for (int i = 0; i < count; ++i) {
    const std::string name = "https://store" + std::to_string(i) + ".example.com:443/Store";
    stores[name] = boost::json::object{{"ios", answer(name)}, {"channels", {{"beta", {{"ios", answer(name, "beta")}}}}}};
  }
  stores["https://substitute.example.com:443/S"] = boost::json::object{{"ios", answer("https://other.example.com:443/S")}};
  stores["https://noname.example.com:443/N"] = boost::json::object{{"ios", {{"kaleth", answer("x").at("kaleth")}}}};
  stores["https://case.example.com:443/C"] =
      boost::json::object{{"ios", answer("https://case.example.com:443/C")},
                          {"channels",
                           {{"beta", {{"ios", answer("https://case.example.com:443/C", "Beta")}}},
                            {"bare", {{"ios", answer("https://case.example.com:443/C")}}}}}};
  return boost::json::serialize(boost::json::object{{"domains", boost::json::object{}}, {"stores", stores}});
}

OrvURL url(const std::string& text) { return *OrvURL::URLWithString(text); }
OrvURL store(int i) { return url("https://store" + std::to_string(i) + ".example.com/Store"); }

}  // namespace

// One store failing among three still delivers the other two; refusals deliver nothing.
TEST(SettingsWorkflowTest, AnswersMustBeAboutWhatWasAsked) {
  // Refusals log why; a listener makes the library write those lines.
  const auto log = LogCollector::install();
  EmulatorHarness harness({catalog(3)});
  harness.emulator().setFault(settingsPath("https://store2.example.com:443/Store"), {.status = 500});
  const auto caseStore = url("https://case.example.com/C");
  const struct {
    const char* what;
    OrvAppConfigStoreURLSet stores;
    std::optional<std::string> channel;
    OrvAppConfigServiceCompletionStatus status;
    std::optional<std::size_t> delivered = std::nullopt;
  } rows[] = {
      {"one store failing among three", {store(0), store(1), store(2)}, std::nullopt, 0, 2},
      {"no store answers", {url("https://unknown.example.com/A"), url("https://unknown.example.com/B")}, std::nullopt, 3},
      {"substituted store", {store(0), url("https://substitute.example.com/S")}, std::nullopt, 3},
      {"answer without a store name", {url("https://noname.example.com/N")}, std::nullopt, 3},
      {"channel differing in case", {caseStore}, "beta", 3},
      {"channel missing from the answer", {caseStore}, "bare", 3},
      {"every store on the channel asked", {store(0), store(1)}, "beta", 0, 2},
      {"no channel asked: any accepted", {caseStore}, std::nullopt, 0, 1},
  };
  for (const auto& row : rows) {
    const auto outcome = retrieve(*harness.service, row.stores, row.channel);
    EXPECT_EQ(outcome.status, row.status) << row.what;
    EXPECT_EQ(outcome.result ? std::optional(outcome.result->size()) : std::nullopt, row.delivered) << row.what;
    EXPECT_EQ(outcome.error, std::nullopt) << row.what;
    // Keyed by the URL as given, not as normalised, and with the signed validity period.
    for (const auto& [store, record] : outcome.result.value_or(OrvAppConfigStoreSettingsDictionary{})) {
      EXPECT_TRUE(row.stores.contains(store) && record->notValidBefore() && record->notValidAfter()) << row.what;
    }
  }

  // A signature that does not verify fails the whole request with the security error.
  harness.emulator().setFault(settingsPath("https://store1.example.com:443/Store"), {.corruptSignature = true});
  const auto forged = retrieve(*harness.service, {store(0), store(1)});
  EXPECT_EQ(forged.status, 3u);
  ASSERT_TRUE(forged.error);
  EXPECT_EQ(forged.error->domain(), OrvSecurityUtilsErrorDomain);
}

// A request that fails without an error still says why in its trace, store by store.
TEST(SettingsWorkflowTest, FailedStoresEachSayWhyInTheTrace) {
  EmulatorHarness harness({catalog(1)});
  struct Traces : OrvAppConfigDiagnosticsDelegate {
    std::vector<std::shared_ptr<const OrvAppConfigRequestTrace>> all;
    void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) override { all.push_back(trace); }
  };
  const auto traces = std::make_shared<Traces>();
  harness.service->setDiagnosticsDelegate(traces);
  harness.emulator().setFault(settingsPath("https://store0.example.com:443/Store"), {.dropMidBody = true});
  EXPECT_EQ(retrieve(*harness.service, {store(0), url("https://gone.example.com/Store")}).status, 3u);
  ASSERT_EQ(traces->all.size(), 1u);
  const auto step = [&](std::string_view name) {
    for (const auto& step : traces->all[0]->steps) {
      if (step.name == name) return step;
    }
    return OrvAppConfigTraceStep{.name = "absent"};
  };
  const auto dropped = step("settings query for https://store0.example.com/Store");
  EXPECT_FALSE(dropped.passed);
  EXPECT_TRUE(dropped.error) << "the transport error of the store whose connection broke";
  EXPECT_EQ(step("settings query for https://gone.example.com/Store").httpStatus, 404);
  EXPECT_EQ(step("stores").name, "stores");

  // The next request gets its own trace, which names the channel asked for.
  EXPECT_EQ(retrieve(*harness.service, {store(0)}, "gamma").status, 3u);
  ASSERT_EQ(traces->all.size(), 2u);
  EXPECT_THAT(traces->all[1]->subject, ::testing::HasSubstr("channel \"gamma\""));
}

// Two settings requests in flight together, beside an auto-discovery that fails on its own: each
// request's fan-in counts only its own answers.
TEST(SettingsWorkflowTest, ManyStoresAtOnce) {
  constexpr std::size_t kStores = 40;
  EmulatorHarness harness({catalog(kStores)});
  OrvAppConfigStoreURLSet stores;
  for (std::size_t i = 0; i < kStores; ++i) stores.insert(store(int(i)));
  std::vector<std::size_t> delivered;
  const auto counted = [&](auto status, auto settings, auto) {
    EXPECT_EQ(status, 0u);
    delivered.push_back(settings ? settings->size() : 0);
  };
  bool discovered = false;
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, counted);
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, std::string("beta"), counted);
  harness.service->asyncStartAutodiscoveryForUserInput("user@unknown.example", 0, [&](auto status, auto, auto) {
    EXPECT_EQ(status, 2u);
    discovered = true;
  });
  ASSERT_TRUE(runMainQueueUntil([&] { return discovered && delivered.size() == 2; }, std::chrono::seconds(60)));
  EXPECT_THAT(delivered, ::testing::ElementsAre(kStores, kStores));
}
