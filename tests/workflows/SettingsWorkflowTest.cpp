// Settings for a set of stores, against the emulator over TLS on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "EmulatorHarness.h"
#include "OrvAppConfigSettingsRecord.h"
#include "OrvSDKStringUtils.h"
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

OrvURL store(int i) { return *OrvURL::URLWithString("https://store" + std::to_string(i) + ".example.com/Store"); }

std::string settingsPath(const std::string& normalisedStore, const char* os = "ios") {
  return "/ads/root/url/" + *OrvBase64URLEncodedStringFromString(normalisedStore) + "/product/kaleth/os/" + os;
}

struct Outcome {
  OrvAppConfigServiceCompletionStatus status = 99;
  std::optional<OrvAppConfigStoreSettingsDictionary> settings;
  std::optional<OrvError> error;
  bool onMainQueue = false;
};

Outcome retrieve(const std::shared_ptr<OrvAppConfigService>& service, OrvAppConfigStoreURLSet stores,
                 std::optional<std::string> channel = std::nullopt, std::uint64_t platform = 0) {
  Capture<OrvAppConfigServiceCompletionStatus, std::optional<OrvAppConfigStoreSettingsDictionary>, std::optional<OrvError>>
      capture;
  service->asyncStartSettingsRetrievalForStoreUrls(std::move(stores), 0, platform, std::move(channel), capture.block());
  EXPECT_TRUE(capture.wait());
  EXPECT_EQ(capture.calls, 1);
  return {std::get<0>(capture.values), std::get<1>(capture.values), std::get<2>(capture.values), capture.onMainQueue};
}

}  // namespace

TEST(SettingsWorkflowTest, PartialAnswersAreValidatedAndDelivered) {
  EmulatorHarness harness({catalog(3)});
  auto all = retrieve(harness.service, {store(0), store(1), store(2)});
  EXPECT_EQ(all.status, 0u);
  EXPECT_TRUE(all.onMainQueue);
  ASSERT_TRUE(all.settings);
  ASSERT_EQ(all.settings->size(), 3u);
  const auto& record = all.settings->at(store(1));  // keyed by the URL as given, not as normalised
  EXPECT_EQ(record->url()->name(), "https://store1.example.com:443/Store");
  EXPECT_TRUE(record->notValidBefore() && record->notValidAfter());

  // One store failing among three: the other two are delivered.
  orv::emulator::FaultSpec failing;
  failing.status = 500;
  harness.emulator().setFault(settingsPath("https://store2.example.com:443/Store"), failing);
  auto partial = retrieve(harness.service, {store(0), store(1), store(2)});
  EXPECT_EQ(partial.status, 0u);
  ASSERT_TRUE(partial.settings);
  EXPECT_EQ(partial.settings->size(), 2u);
  EXPECT_FALSE(partial.settings->contains(store(2)));
}

TEST(SettingsWorkflowTest, FailureTable) {
  auto log = LogCollector::install();
  EmulatorHarness harness({catalog(2)});
  const auto expectFailure = [&](const char* what, OrvAppConfigStoreURLSet stores,
                                 std::optional<std::string> channel = std::nullopt) {
    auto outcome = retrieve(harness.service, std::move(stores), std::move(channel));
    EXPECT_EQ(outcome.status, 3u) << what;
    EXPECT_EQ(outcome.settings, std::nullopt) << what;
    return outcome;
  };
  auto none = expectFailure("no store answers", {*OrvURL::URLWithString("https://unknown.example.com/A"),
                                                 *OrvURL::URLWithString("https://unknown.example.com/B")});
  EXPECT_EQ(none.error, std::nullopt);
  EXPECT_TRUE(
      log->contains("Failed to validate the app config payload with status OrvPayloadValidationStatusInvalidJWTParameters - "
                    "invoking completion block"));

  expectFailure("substituted store", {store(0), *OrvURL::URLWithString("https://substitute.example.com/S")});
  EXPECT_TRUE(log->contains("Mismatched store response was found for store request - failing this request"));
  expectFailure("answer without a store name", {*OrvURL::URLWithString("https://noname.example.com/N")});

  const auto caseStore = *OrvURL::URLWithString("https://case.example.com/C");
  expectFailure("channel differing in case", {caseStore}, "beta");
  expectFailure("channel missing from the answer", {caseStore}, "bare");
  EXPECT_TRUE(log->contains("Mismatched channel name was found - failing this request"));
  EXPECT_EQ(retrieve(harness.service, {store(0), store(1)}, "beta").status, 0u);
  EXPECT_EQ(retrieve(harness.service, {caseStore}).status, 0u) << "without a channel any answer's channel is accepted";

  // A signature that does not verify fails the whole request with the security error.
  orv::emulator::FaultSpec badSignature;
  badSignature.corruptSignature = true;
  harness.emulator().setFault(settingsPath("https://store1.example.com:443/Store"), badSignature);
  auto forged = expectFailure("forged signature", {store(0), store(1)});
  ASSERT_TRUE(forged.error);
  EXPECT_EQ(forged.error->domain(), OrvSecurityUtilsErrorDomain);
}

TEST(SettingsWorkflowTest, ManyStoresAtOnce) {
  constexpr int kStores = 40;
  EmulatorHarness harness({catalog(kStores)});
  OrvAppConfigStoreURLSet stores;
  for (int i = 0; i < kStores; ++i) stores.insert(store(i));
  // Two requests in flight together, on top of an auto-discovery that fails on its own.
  std::atomic<int> done{0};
  std::optional<std::size_t> firstCount, secondCount;
  const auto completion = [&](std::optional<std::size_t>& count) {
    return [&](auto status, auto settings, auto) {
      EXPECT_EQ(status, 0u);
      count = settings ? settings->size() : 0;
      ++done;
    };
  };
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, completion(firstCount));
  harness.service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, 0, std::string("beta"), completion(secondCount));
  harness.service->asyncStartAutodiscoveryForUserInput("user@unknown.example", 0, [&](auto status, auto, auto) {
    EXPECT_EQ(status, 2u);
    ++done;
  });
  ASSERT_TRUE(runMainQueueUntil([&] { return done == 3; }, std::chrono::seconds(60)));
  EXPECT_EQ(firstCount, std::size_t(kStores));
  EXPECT_EQ(secondCount, std::size_t(kStores));
}
