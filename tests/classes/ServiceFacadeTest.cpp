#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MockOrvAppConfigService.h"
#include "OrvAppConfigAutoDiscoverRecord.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigService.h"
#include "OrvAppConfigServiceLogger.h"
#include "TestSupport.h"

using orv::test::Capture;
using orv::test::FakeResponse;
using orv::test::FakeURLSession;

namespace {

std::shared_ptr<OrvAppConfigService> makeService(std::shared_ptr<OrvURLSession> session = nullptr,
                                                 std::shared_ptr<OrvFeatureFlagProviderProtocol> flags = nullptr) {
  if (!session) session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{std::nullopt, 404}; });
  return OrvAppConfigService::initWithURLSession(session, std::make_shared<orv::test::StaticHeaderProvider>(), nullptr, flags);
}

using AutoCapture =
    Capture<OrvAppConfigServiceCompletionStatus, std::shared_ptr<OrvAppConfigAutoDiscoverRecord>, std::optional<OrvError>>;
using SettingsCapture =
    Capture<OrvAppConfigServiceCompletionStatus, std::optional<OrvAppConfigStoreSettingsDictionary>, std::optional<OrvError>>;

}  // namespace

TEST(OrvAppConfigServiceTest, FeatureFlagsAreReadOnceInOrderAndDefaultOn) {
  auto service = makeService();
  EXPECT_TRUE(service->shouldValidateEntireDomainForURLDiscovery());
  EXPECT_TRUE(service->shouldEnableFeatureChannels());

  auto flags = std::make_shared<orv::test::FixedFeatureFlags>(false, true);
  auto flagged = makeService(nullptr, flags);
  EXPECT_FALSE(flagged->shouldValidateEntireDomainForURLDiscovery());
  EXPECT_TRUE(flagged->shouldEnableFeatureChannels());
  ASSERT_EQ(flags->questions.size(), 2u);
  EXPECT_EQ(flags->questions[0].first, "com.varnel.orvappconfigService.featureFlagServiceName");
  EXPECT_EQ(flags->questions[0].second, "com.varnel.orvappconfigService.featureFlagValue.UseEntireDomainForURLDiscovery");
  EXPECT_EQ(flags->questions[1].second, "com.varnel.orvappconfigService.featureFlagValue.enableFeatureChannels");

  // Known values are named in the workflow logs; unknown ones are named by number.
  EXPECT_EQ(OrvAppConfigService::descriptionForCompletionStatus(4), "Unknown OrvAppConfigServiceCompletionStatus of 4");
  EXPECT_EQ(OrvAppConfigService::descriptionForPayloadValidationStatus(-1), "Unknown OrvPayloadValidationStatus of -1");
}

TEST(OrvAppConfigServiceTest, RefusedAutoDiscoveryIsDeliveredLaterOnTheMainQueue) {
  auto log = orv::test::LogCollector::install();
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{}; });
  auto service = makeService(session);
  for (const std::optional<std::string>& input :
       {std::optional<std::string>{}, std::optional<std::string>(""), std::optional<std::string>(" \t\n\u2028")}) {
    AutoCapture capture;
    service->asyncStartAutodiscoveryForUserInput(input, 0, capture.block());
    EXPECT_EQ(capture.calls, 0) << "never synchronous";
    ASSERT_TRUE(capture.wait());
    EXPECT_TRUE(capture.onMainQueue);
    EXPECT_EQ(std::get<0>(capture.values), OrvAppConfigServiceCompletionStatusInvalidParameters);
    EXPECT_EQ(std::get<1>(capture.values), nullptr);
    EXPECT_EQ(std::get<2>(capture.values), std::nullopt);
  }
  // Without a block nothing is delivered, and the unmatched end of the workflow does no harm.
  service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, nullptr);
  EXPECT_EQ(session->requestCount(), 0u);
  EXPECT_TRUE(log->contains("nil email address or completion block was provided - failing request"));
}

TEST(OrvAppConfigServiceTest, RefusedSettingsRetrievalIsDeliveredLaterOnTheMainQueue) {
  auto log = orv::test::LogCollector::install();
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{}; });
  auto service = makeService(session);
  const auto store = *OrvURL::URLWithString("https://store.example.com/Store");

  SettingsCapture empty;
  service->asyncStartSettingsRetrievalForStoreUrls({}, 0, 0, empty.block());
  EXPECT_EQ(empty.calls, 0);
  ASSERT_TRUE(empty.wait());
  EXPECT_TRUE(empty.onMainQueue);
  EXPECT_EQ(std::get<0>(empty.values), OrvAppConfigServiceCompletionStatusInvalidParameters);
  EXPECT_EQ(std::get<1>(empty.values), std::nullopt);
  EXPECT_TRUE(
      log->contains("Store URL count = 0 (expected non-zero) or invalid channel name (nil) or nil completionBlock provided"));

  for (const char* channel : {"be ta", "beta%20", "beta?", "b#", "b;", "b\u00e9"}) {
    SettingsCapture capture;
    service->asyncStartSettingsRetrievalForStoreUrls({store}, 0, 0, channel, capture.block());
    ASSERT_TRUE(capture.wait());
    EXPECT_EQ(std::get<0>(capture.values), OrvAppConfigServiceCompletionStatusInvalidParameters) << channel;
  }
  EXPECT_TRUE(
      log->contains("Store URL count = 1 (expected non-zero) or invalid channel name be ta or nil completionBlock provided"));
  EXPECT_EQ(session->requestCount(), 0u);
}

TEST(OrvAppConfigServiceTest, ChannelNameIsDroppedWhileChannelsAreOff) {
  OrvAppConfigDiscoveryHosts::setProductionHost("prod.example.net");
  auto session = std::make_shared<FakeURLSession>([](const OrvURLRequest&) { return FakeResponse{std::nullopt, 500}; });
  auto service = makeService(session, std::make_shared<orv::test::FixedFeatureFlags>(true, false));
  SettingsCapture capture;
  // Invalid as a channel, but it never reaches the request while the feature is off.
  service->asyncStartSettingsRetrievalForStoreUrls({*OrvURL::URLWithString("https://store.example.com/Store")}, 0, 0, "be ta",
                                                   capture.block());
  ASSERT_TRUE(capture.wait());
  EXPECT_EQ(std::get<0>(capture.values), OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed);
  ASSERT_EQ(session->requestCount(), 1u);
  EXPECT_THAT(session->requests()[0].URL().absoluteString(), ::testing::EndsWith("/product/kaleth/os/ios"));
  OrvAppConfigDiscoveryHosts::setProductionHost(std::nullopt);
}

TEST(OrvAppConfigServiceTest, ContextsNormaliseTheirInputs) {
  using P = OrvAppConfigServicePayloadValidationContext;
  const auto split = [](std::optional<std::string> header) {
    P context(OrvData("{}"), std::move(header), std::nullopt, std::nullopt);
    return std::make_pair(context.varnelJWTHeader(), context.varnelJWTSignature());
  };
  EXPECT_EQ(split("aGVhZGVy.c2ln"), std::make_pair(std::optional<std::string>("aGVhZGVy"), std::optional<std::string>("c2ln")));
  EXPECT_EQ(split(".c2ln"), std::make_pair(std::optional<std::string>(""), std::optional<std::string>("c2ln")));
  for (auto header : {std::optional<std::string>("a..b"), std::optional<std::string>("ab"), std::optional<std::string>()}) {
    EXPECT_EQ(split(header), std::make_pair(std::optional<std::string>(), std::optional<std::string>()));
  }

  using S = OrvAppConfigServiceSettingsRetrievalContext;
  EXPECT_EQ(S({}, 0, 0, " \n\u00a0", nullptr).channelName(), std::nullopt);
  EXPECT_EQ(S({}, 0, 0, "", nullptr).channelName(), std::nullopt);
  EXPECT_EQ(S({}, 0, 0, " beta\n", nullptr).channelName(), "beta");
}

TEST(OrvAppConfigServiceLoggerTest, MessagesReachTheDelegateAsData) {
  auto log = orv::test::LogCollector::install();
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

TEST(MockOrvAppConfigServiceTest, PassesArgumentsThroughUntouched) {
  MockOrvAppConfigService mock;
  std::optional<std::string> seenInput, seenChannel;
  std::uint64_t seenPlatform = 0;
  int delivered = -1;
  mock.asyncStartAutodiscoveryForUserInputBlock = [&](auto input, auto, auto block) {
    seenInput = input;
    block(7, nullptr, std::nullopt);  // the substitute's caller decides where completions run
  };
  mock.asyncStartSettingsRetrievalForStoreUrlsBlock = [&](auto, auto, auto platform, auto) { seenPlatform = platform; };
  mock.asyncStartSettingsRetrievalForStoreUrlsBlockWithChannelName = [&](auto, auto, auto, auto channel, auto) {
    seenChannel = channel;
  };
  OrvAppConfigServiceProtocol& service = mock;
  service.asyncStartAutodiscoveryForUserInput("  user@example.com\n", 9,
                                              [&](auto status, auto, auto) { delivered = int(status); });
  service.asyncStartSettingsRetrievalForStoreUrls({}, 0, 5, nullptr);
  service.asyncStartSettingsRetrievalForStoreUrls({}, 0, 0, "   ", nullptr);
  EXPECT_EQ(seenInput, "  user@example.com\n") << "no trimming";
  EXPECT_EQ(delivered, 7) << "synchronously, as the block chose";
  EXPECT_EQ(seenPlatform, 5u);
  EXPECT_EQ(seenChannel, "   ") << "no feature flag, no trimming";
}
