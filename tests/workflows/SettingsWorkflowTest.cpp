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
  const std::string c = "https://case.example.com:443/C";
  stores[c] = {{"ios", answer(c)}, {"channels", {{"beta", {{"ios", answer(c, "Beta")}}}, {"bare", {{"ios", answer(c)}}}}}};
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
  const auto collector = std::make_shared<TraceCollector>();
  harness.service->setDiagnosticsDelegate(collector);
  harness.emulator().setFault(settingsPath("https://store2.example.com:443/Store"), {.dropMidBody = true});
  const auto caseStore = url("https://case.example.com/C");
  // Each row: what is asked, and how many records come back (none: the request fails, status 3).
  const std::tuple<const char*, OrvAppConfigStoreURLSet, std::optional<std::string>, std::optional<std::size_t>> rows[] = {
      {"one store failing among three", {store(0), store(1), store(2)}, std::nullopt, 2},
      {"no store answers", {store(2), url("https://gone.example.com/Store")}, std::nullopt, std::nullopt},
      {"substituted store", {store(0), url("https://substitute.example.com/S")}, std::nullopt, std::nullopt},
      {"answer without a store name", {url("https://noname.example.com/N")}, std::nullopt, std::nullopt},
      {"channel differing in case", {caseStore}, "beta", std::nullopt},
      {"channel missing from the answer", {caseStore}, "bare", std::nullopt},
  };
  for (const auto& [what, stores, channel, delivered] : rows) {
    const auto outcome = retrieve(*harness.service, stores, channel);
    EXPECT_EQ(outcome.status, delivered ? 0u : 3u) << what;
    EXPECT_EQ(outcome.result ? std::optional(outcome.result->size()) : std::nullopt, delivered) << what;
    EXPECT_EQ(outcome.error, std::nullopt) << what;
    // Keyed by the URL as given, not as normalised, and with the signed validity period.
    for (const auto& [store, record] : outcome.result.value_or(OrvAppConfigStoreSettingsDictionary{})) {
      EXPECT_TRUE(stores.contains(store) && record->notValidBefore() && record->notValidAfter()) << what;
    }
    ASSERT_FALSE(collector->traces.empty());
    const bool namesChannel = collector->traces.back()->subject.find("channel \"" + channel.value_or("")) != std::string::npos;
    EXPECT_EQ(namesChannel, channel.has_value()) << what;
  }
  ASSERT_EQ(collector->traces.size(), std::size(rows));
  std::map<std::string, OrvAppConfigTraceStep> steps;
  for (const auto& step : collector->traces[1]->steps) steps.emplace(step.name, step);
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

// The same signed bytes, from the same store and from another: the record read the first time is kept,
// yet the validity period and the store it is about are judged again for every request. The emulator
// keeps the dates the catalog gives and RS256 signs deterministically, so every answer here has one text.
TEST(SettingsWorkflowTest, AnAnswerReadBeforeIsStillJudgedForEachRequest) {
  auto signedOnce = answer("https://fixed.example.com:443/F");
  signedOnce["iat"] = 1700000000;
  signedOnce["exp"] = 1700003600;
  const auto text = boost::json::serialize(boost::json::object{
      {"domains", boost::json::object{}},
      {"stores",
       {{"https://fixed.example.com:443/F", {{"ios", signedOnce}}}, {"https://copy.example.com:443/C", {{"ios", signedOnce}}}}}});
  EmulatorHarness harness({text});
  const std::tuple<const char*, double, OrvURL, unsigned> rows[] = {
      {"first reading", 1700000000.0, url("https://fixed.example.com/F"), 0},
      {"read before, last instant", 1700003600.0, url("https://fixed.example.com/F"), 0},
      {"read before, too early", 1699999999.999, url("https://fixed.example.com/F"), 3},
      {"read before, too late", 1700003600.001, url("https://fixed.example.com/F"), 3},
      {"read before, from another store", 1700000000.0, url("https://copy.example.com/C"), 3},
  };
  for (const auto& [what, now, storeURL, status] : rows) {
    harness.service->setCurrentDateProvider([now] { return OrvDateFromTimeIntervalSince1970(now); });
    EXPECT_EQ(retrieve(*harness.service, {storeURL}).status, status) << what;
  }
}
