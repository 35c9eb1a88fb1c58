#include <gmock/gmock.h>

#include "OrvAppConfigServiceLogger.h"
#include "TestSupport.h"

using namespace orv::test;

// Refusals send nothing, yet still arrive the way every other outcome does: later, on the main queue
// (discover() and retrieve() check that). The flags' other settings are the workflow tests' (whole-host
// probe on and off).
TEST(OrvAppConfigServiceTest, RefusedRequestsSendNothing) {
  const DiscoveryHostsOverride hosts("prod.example.net");
  const auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{std::nullopt, 500}; });
  const auto service =
      OrvAppConfigService::initWithURLSession(session, std::make_shared<StaticHeaderProvider>(), nullptr, nullptr);
  using Input = std::optional<std::string>;
  for (const auto& input : {Input{}, Input(""), Input(" \t\n\u2028")}) {
    const auto refused = discover(*service, input);
    EXPECT_EQ(refused.status, OrvAppConfigServiceCompletionStatusInvalidParameters);
    EXPECT_EQ(refused.result, nullptr);
    EXPECT_EQ(refused.error, std::nullopt);
  }
  // Without a block nothing is delivered, and the unmatched end of the workflow does no harm.
  service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, nullptr);

  const auto store = *OrvURL::URLWithString("https://store.example.com/Store");
  std::vector<std::pair<OrvAppConfigStoreURLSet, Input>> settings = {{{}, std::nullopt}};
  for (const char* channel : {"be ta", "beta%20", "beta?", "b#", "b;", "b\u00e9"})
    settings.emplace_back(OrvAppConfigStoreURLSet{store}, channel);
  for (const auto& [stores, channel] : settings) {
    const auto refused = retrieve(*service, stores, channel);
    EXPECT_EQ(refused.status, OrvAppConfigServiceCompletionStatusInvalidParameters) << channel.value_or("no store");
    EXPECT_EQ(refused.result, std::nullopt);
  }
  EXPECT_EQ(session->requests().size(), 0u);

  // While channels are off, a channel invalid as such is dropped and the request made without it.
  const auto channelsOff = OrvAppConfigService::initWithURLSession(session, std::make_shared<StaticHeaderProvider>(), nullptr,
                                                                   std::make_shared<FixedFeatureFlags>(true, false));
  EXPECT_EQ(retrieve(*channelsOff, {store}, "be ta").status, OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed);
  ASSERT_EQ(session->requests().size(), 1u);
  EXPECT_THAT(session->requests()[0].URL().absoluteString(), ::testing::EndsWith("/product/kaleth/os/ios"));

  // Trace texts name unknown statuses by number (the known ones are in the tool's JSON output).
  EXPECT_EQ(OrvAppConfigService::descriptionForCompletionStatus(4), "Unknown OrvAppConfigServiceCompletionStatus of 4");
  EXPECT_EQ(OrvAppConfigService::descriptionForPayloadValidationStatus(-1), "Unknown OrvPayloadValidationStatus of -1");
}

TEST(OrvAppConfigServiceLoggerTest, MessagesReachTheDelegateAsData) {
  auto log = LogCollector::install();
  ORV_LOG_ERROR("URL %@ with %lu and %% %@", *OrvURL::URLWithString("https://example.com/a%40b%25s"), 5u, std::string("{0} %d"));
  ASSERT_FALSE(log->lines().empty());
  const auto line = log->lines().back();
  EXPECT_EQ(line.message, "URL https://example.com/a%40b%25s with 5 and % {0} %d");
  EXPECT_EQ(line.level, 2);
  EXPECT_EQ(line.file, "tests/classes/ServiceFacadeTest.cpp");
  EXPECT_THAT(line.function, ::testing::HasSubstr("TestBody"));
}
