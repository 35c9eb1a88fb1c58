// Settings for a set of stores, against the emulator over TLS on loopback.
#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvAppConfigSettingsRecord.h"

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

// What is delivered, store by store; and the trace of each request, which names the channel asked for
// and, when no store gave a usable answer, says for each store why.
TEST(SettingsWorkflowTest, AnswersMustBeAboutWhatWasAsked) {
  // Refusals log why; a listener makes the library write those lines.
  const auto log = LogCollector::install();
  EmulatorHarness harness({catalog(3)});
  struct Traces : OrvAppConfigDiagnosticsDelegate {
    std::vector<std::shared_ptr<const OrvAppConfigRequestTrace>> all;
    void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) override { all.push_back(trace); }
  };
  const auto traces = std::make_shared<Traces>();
  harness.service->setDiagnosticsDelegate(traces);
  harness.emulator().setFault(settingsPath("https://store2.example.com:443/Store"), {.dropMidBody = true});
  const auto caseStore = url("https://case.example.com/C");
  const struct {
    const char* what;
    OrvAppConfigStoreURLSet stores;
    std::optional<std::string> channel;
    OrvAppConfigServiceCompletionStatus status;
    std::optional<std::size_t> delivered = std::nullopt;
  } rows[] = {
      {"one store failing among three", {store(0), store(1), store(2)}, std::nullopt, 0, 2},
      {"no store answers", {store(2), url("https://gone.example.com/Store")}, std::nullopt, 3},
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
    ASSERT_FALSE(traces->all.empty());
    EXPECT_EQ(traces->all.back()->subject.find("channel \"" + row.channel.value_or("")) != std::string::npos,
              row.channel.has_value())
        << row.what;
  }
  ASSERT_EQ(traces->all.size(), std::size(rows));
  std::map<std::string, OrvAppConfigTraceStep> steps;
  for (const auto& step : traces->all[1]->steps) steps.emplace(step.name, step);
  EXPECT_FALSE(steps["settings query for https://store2.example.com/Store"].passed);
  EXPECT_TRUE(steps["settings query for https://store2.example.com/Store"].error)
      << "the transport error of the broken connection";
  EXPECT_EQ(steps["settings query for https://gone.example.com/Store"].httpStatus, 404);
  EXPECT_TRUE(steps.contains("stores"));

  // A signature that does not verify fails the whole request with the security error.
  harness.emulator().setFault(settingsPath("https://store1.example.com:443/Store"), {.corruptSignature = true});
  const auto forged = retrieve(*harness.service, {store(0), store(1)});
  EXPECT_EQ(forged.status, 3u);
  ASSERT_TRUE(forged.error);
  EXPECT_EQ(forged.error->domain(), OrvSecurityUtilsErrorDomain);
}

// Two settings requests in flight together, beside an auto-discovery that fails on its own: each
// request's fan-in counts only its own answers.
TEST(SettingsWorkflowTest, ManyStoresAtOnce) {
  constexpr std::size_t kStores = 40;
  EmulatorHarness harness({catalog(kStores)});
  OrvAppConfigStoreURLSet stores;
  for (std::size_t i = 0; i < kStores; ++i) stores.insert(store(int(i)));
  // A settings request counts the records it delivered, the discovery its status.
  std::vector<std::size_t> delivered;
  const auto counted = [&](auto status, auto settings, auto) {
    delivered.push_back(status == 0 && settings ? settings->size() : 0);
  };
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, counted);
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, std::string("beta"), counted);
  harness.service->asyncStartAutodiscoveryForUserInput("user@unknown.example", 0,
                                                       [&](auto status, auto, auto) { delivered.push_back(status); });
  ASSERT_TRUE(runMainQueueUntil([&] { return delivered.size() == 3; }, std::chrono::seconds(60)));
  EXPECT_THAT(delivered, ::testing::UnorderedElementsAre(kStores, kStores, 2u));
}
