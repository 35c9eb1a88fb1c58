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

TEST(OrvAppConfigServiceTest, FeatureFlagsAreReadOnceInOrderAndDefaultOn) {
  auto service = makeService(answering(404));
  EXPECT_TRUE(service->shouldValidateEntireDomainForURLDiscovery());
  EXPECT_TRUE(service->shouldEnableFeatureChannels());

  auto flags = std::make_shared<FixedFeatureFlags>(false, true);
  auto flagged = makeService(answering(404), flags);
  EXPECT_FALSE(flagged->shouldValidateEntireDomainForURLDiscovery());
  EXPECT_TRUE(flagged->shouldEnableFeatureChannels());
  EXPECT_EQ(flags->questions.size(), 2u);

  // Known values are named in the workflow logs; unknown ones are named by number.
  for (OrvAppConfigServiceCompletionStatus status = 0; status < 4; ++status) {
    EXPECT_THAT(OrvAppConfigService::descriptionForCompletionStatus(status),
                ::testing::StartsWith("OrvAppConfigServiceCompletionStatus"));
  }
  EXPECT_EQ(OrvAppConfigService::descriptionForCompletionStatus(4), "Unknown OrvAppConfigServiceCompletionStatus of 4");
  EXPECT_EQ(OrvAppConfigService::descriptionForPayloadValidationStatus(-1), "Unknown OrvPayloadValidationStatus of -1");
}

// Refusals send nothing, yet still arrive the way every other outcome does: later, on the main queue
// (discover() and retrieve() check that).
TEST(OrvAppConfigServiceTest, RefusedRequestsSendNothing) {
  auto log = LogCollector::install();
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
  EXPECT_TRUE(log->contains("nil email address or completion block was provided - failing request"));

  const auto store = *OrvURL::URLWithString("https://store.example.com/Store");
  std::vector<std::pair<OrvAppConfigStoreURLSet, std::optional<std::string>>> settings = {{{}, std::nullopt}};
  for (const char* channel : {"be ta", "beta%20", "beta?", "b#", "b;", "b\u00e9"})
    settings.emplace_back(OrvAppConfigStoreURLSet{store}, channel);
  for (const auto& [stores, channel] : settings) {
    const auto refused = retrieve(*service, stores, channel);
    EXPECT_EQ(refused.status, OrvAppConfigServiceCompletionStatusInvalidParameters) << channel.value_or("no store");
    EXPECT_EQ(refused.result, std::nullopt);
  }
  EXPECT_TRUE(
      log->contains("Store URL count = 0 (expected non-zero) or invalid channel name (nil) or nil completionBlock provided"));
  EXPECT_TRUE(
      log->contains("Store URL count = 1 (expected non-zero) or invalid channel name be ta or nil completionBlock provided"));
  EXPECT_EQ(session->requests().size(), 0u);
}

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
  const auto url = OrvURL::URLWithString("https://example.com/a%40b%25s");
  ASSERT_TRUE(url);
  ORV_LOG_ERROR("URL %@ with %lu and %% %@", *url, 5u, std::string("{0} %d"));
  const auto lines = log->lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().message, "URL https://example.com/a%40b%25s with 5 and % {0} %d");
  EXPECT_EQ(lines.back().module, "OrvAppConfigService");
  EXPECT_EQ(lines.back().level, 2);
  EXPECT_EQ(lines.back().file, "tests/classes/ServiceFacadeTest.cpp");
  EXPECT_THAT(lines.back().function, ::testing::HasSubstr("TestBody"));
  EXPECT_GT(lines.back().line, 0);
}
