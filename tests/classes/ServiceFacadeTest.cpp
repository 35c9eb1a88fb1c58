#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "OrvAppConfigServiceLogger.h"
#include "TestSupport.h"

using namespace orv::test;

namespace {

std::shared_ptr<FakeURLSession> answering(std::int64_t status) {
  return std::make_shared<FakeURLSession>([status](const OrvURLRequest&) { return FakeResponse{std::nullopt, status}; });
}

std::shared_ptr<OrvAppConfigService> makeService(std::shared_ptr<OrvURLSession> session,
                                                 std::shared_ptr<OrvFeatureFlagProviderProtocol> flags = nullptr) {
  return OrvAppConfigService::initWithURLSession(std::move(session), std::make_shared<StaticHeaderProvider>(), nullptr,
                                                 std::move(flags));
}

}  // namespace

// Refusals send nothing, yet still arrive the way every other outcome does: later, on the main queue
// (discover() and retrieve() check that).
TEST(OrvAppConfigServiceTest, RefusedRequestsSendNothing) {
  auto session = answering(200);
  auto service = makeService(session);
  for (const auto& input :
       {std::optional<std::string>{}, std::optional<std::string>(""), std::optional<std::string>(" \t\n\u2028")}) {
    const auto refused = discover(*service, input);
    EXPECT_EQ(refused.status, OrvAppConfigServiceCompletionStatusInvalidParameters);
    EXPECT_EQ(refused.result, nullptr);
    EXPECT_EQ(refused.error, std::nullopt);
  }
  // Without a block nothing is delivered, and the unmatched end of the workflow does no harm.
  service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, nullptr);

  const auto store = *OrvURL::URLWithString("https://store.example.com/Store");
  std::vector<std::pair<OrvAppConfigStoreURLSet, std::optional<std::string>>> settings = {{{}, std::nullopt}};
  for (const char* channel : {"be ta", "beta%20", "beta?", "b#", "b;", "b\u00e9"})
    settings.emplace_back(OrvAppConfigStoreURLSet{store}, channel);
  for (const auto& [stores, channel] : settings) {
    const auto refused = retrieve(*service, stores, channel);
    EXPECT_EQ(refused.status, OrvAppConfigServiceCompletionStatusInvalidParameters) << channel.value_or("no store");
    EXPECT_EQ(refused.result, std::nullopt);
  }
  EXPECT_EQ(session->requests().size(), 0u);

  // Trace texts name every known status, and unknown ones by number.
  for (OrvAppConfigServiceCompletionStatus status = 0; status < 4; ++status)
    EXPECT_THAT(OrvAppConfigService::descriptionForCompletionStatus(status), ::testing::StartsWith("OrvAppConfigService"));
  EXPECT_EQ(OrvAppConfigService::descriptionForCompletionStatus(4), "Unknown OrvAppConfigServiceCompletionStatus of 4");
  EXPECT_EQ(OrvAppConfigService::descriptionForPayloadValidationStatus(-1), "Unknown OrvPayloadValidationStatus of -1");
}

// The flags' other settings are the workflow tests' (whole-host probe on and off).
TEST(OrvAppConfigServiceTest, ChannelNameIsDroppedWhileChannelsAreOff) {
  const DiscoveryHostsOverride hosts("prod.example.net");
  auto session = answering(500);
  auto service = makeService(session, std::make_shared<FixedFeatureFlags>(true, false));
  // Invalid as a channel, but it never reaches the request while the feature is off.
  const auto failed = retrieve(*service, {*OrvURL::URLWithString("https://store.example.com/Store")}, "be ta");
  EXPECT_EQ(failed.status, OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed);
  ASSERT_EQ(session->requests().size(), 1u);
  EXPECT_THAT(session->requests()[0].URL().absoluteString(), ::testing::EndsWith("/product/kaleth/os/ios"));
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
