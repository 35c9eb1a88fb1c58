#include <gtest/gtest.h>

#include <cstdlib>

#include "OrvAppConfigAutoDiscoverURLGenerator.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"
#include "TestSupport.h"

using namespace OrvAppConfigServiceUtils;

namespace {

std::optional<std::string> urlString(const std::optional<OrvURL>& url) {
  return url ? std::optional<std::string>(url->absoluteString()) : std::nullopt;
}

}  // namespace

TEST(OrvAppConfigServiceUtilsTest, EmailAddressesAndURLsFromUserInputAndStoreURLs) {
  // Blanks at the edges, non-ASCII ones included, are trimmed; inside they spoil the address.
  for (const char* text : {"user@example.com", "  user@example.com\n", "user@example", "a@b", "\u00a0a@b\u3000"})
    EXPECT_TRUE(isEmailAddress(text)) << text;
  for (const char* text : {"user@", "@example.com", "a@b@c", "a@@b", "us er@example.com", "us\u2003er@example.com", ""})
    EXPECT_FALSE(isEmailAddress(text)) << text;

  const std::pair<const char*, std::optional<std::string>> inputs[] = {
      {"", std::nullopt},
      {"   \t", std::nullopt},
      {"exa mple.com", std::nullopt},
      {"example.com", "https://example.com"},
      {" example.com/store ", "https://example.com/store"},
      {"http://example.com", "http://example.com"},
      // The prefix test is case-sensitive on purpose: the capitalised scheme becomes part of the text.
      {"HTTPS://example.com", "https://HTTPS://example.com"}};
  for (const auto& [input, expected] : inputs) EXPECT_EQ(urlString(urlFromString(input)), expected) << input;

  const std::pair<const char*, const char*> stores[] = {
      {"https://store.example.com/Store", "https://store.example.com:443/Store"},
      {"https://store.example.com:8443/Store", "https://store.example.com:8443/Store"},
      {"http://store.example.com/Store", "http://store.example.com/Store"},
      {"store.example.com/Store", "https://store.example.com:443/Store"},
      {"https://Store.Example.com/Store/?q=1#f", "https://Store.Example.com:443/Store/?q=1#f"}};
  for (const auto& [store, expected] : stores)
    EXPECT_EQ(urlString(addPortAndSchemeIfNotPresent(*OrvURL::URLWithString(store))), expected) << store;
}

TEST(OrvAppConfigServiceUtilsTest, StoreURLMatching) {
  const char* requested = "https://store.example.com/Store";
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"https://Store.Example.com/Store", "https://store.example.com:443/store", true},
      // Only the requested side gains the default port.
      {"https://Store.Example.com/Store", "https://store.example.com/store", false},
      {requested, "http://store.example.com:443/Store", false},
      {"https://store.example.com/Store?a=1", "https://store.example.com:443/Store?b=2", true},
      {"https://store.example.com/Store/", "https://store.example.com:443/Store", true},
      {"https://store.example.com/St%6Fre", "https://store.example.com:443/Store", true},
      {requested, "https://other.example.com:443/Store", false},
      {nullptr, "https://store.example.com:443/Store", false},
      {requested, nullptr, false},
      {requested, "/Store", false}};
  const auto url = [](const char* text) { return text ? OrvURL::URLWithString(text) : std::nullopt; };
  for (const auto& [asked, answered, match] : cases)
    EXPECT_EQ(requestedStoreURL(url(asked), url(answered)), match)
        << (asked ? asked : "nil") << " / " << (answered ? answered : "nil");
}

TEST(OrvAppConfigURLGeneratorsTest, AutoDiscoverAndSettingsQueryURLs) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net:8443");
  using G = OrvAppConfigAutoDiscoverURLGenerator;
  EXPECT_EQ(G::corporateDomainFromPossibleEmailAddressUserInput("user@sub.Example.com"), "sub.Example.com");
  // A URL's registrable domain (mode 0) and its whole host (mode 1) are what the workflow tests' fallback
  // probe asks for; here the inputs that never get that far.
  const std::tuple<const char*, OrvAppConfigAutoDiscoverURLGeneratorMode, std::optional<std::string>> domains[] = {
      {"store.example.com", 0, "example.com"},
      {"store.example.co.uk", 0, "co.uk"},
      {"intranet", 0, std::nullopt},
      {"intranet", 1, "intranet"},
      {"https://portal.example.com", 2, std::nullopt}};  // unknown mode: no domain
  for (const auto& [input, mode, domain] : domains)
    EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput(input, mode), domain) << input << " mode " << mode;

  const std::tuple<std::optional<std::string>, std::uint64_t, OrvAppConfigAutoDiscoverURLGeneratorMode,
                   std::optional<std::string>>
      urls[] = {{"user@example.com", 0, 0, "https://prod.example.net/ads/root/domain/example.com/"},
                {"user@example.com", 7, 0, "https://stage.example.net:8443/ads/root/domain/example.com/"},
                // The e-mail reading comes first and ignores the mode.
                {"user@example.com", 0, 2, "https://prod.example.net/ads/root/domain/example.com/"},
                {"", 0, 0, std::nullopt},
                {"  \n", 0, 0, std::nullopt},
                {std::nullopt, 0, 0, std::nullopt}};
  for (const auto& [input, hostType, mode, url] : urls)
    EXPECT_EQ(urlString(G::generateAutoDiscoverURLForUserInput(input, hostType, mode)), url) << input.value_or("nil");
  EXPECT_EQ(G::descriptionForAutoDiscoverURLGeneratorMode(2), "Unknown");

  // Settings queries: the store as the client normalises it, base64url-encoded without padding.
  const std::string encoded = "aHR0cHM6Ly9zdG9yZS5leGFtcGxlLmNvbTo0NDMvU3RvcmU";
  const std::string prod = "https://prod.example.net/ads/root/url/" + encoded + "/product/kaleth/os/";
  const std::tuple<const char*, std::uint64_t, std::uint64_t, std::optional<std::string>, std::optional<std::string>> cases[] = {
      {"https://store.example.com/Store", 0, 1, std::nullopt, prod + "macos"},
      {"https://store.example.com/Store", 3, 1, std::nullopt,
       "https://stage.example.net:8443/ads/root/url/" + encoded + "/product/kaleth/os/macos"},
      {"https://store.example.com/Store", 0, 0, "beta", prod + "ios/channel/beta"},
      {"store.example.com/Store", 0, 0, std::nullopt, prod + "ios"},
      {"https://store.example.com/Store", 0, 2, std::nullopt, std::nullopt},
      {"https://store.example.com/Store", 0, 0, "", std::nullopt},
      {"https://store.example.com/Store", 0, 0, "be ta", std::nullopt}};
  for (const auto& [store, hostType, platform, channel, expected] : cases) {
    EXPECT_EQ(urlString(OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(OrvURL::URLWithString(store),
                                                                                                   hostType, platform, channel)),
              expected)
        << store << " " << platform << " " << channel.value_or("nil");
  }
}

TEST(OrvAppConfigDiscoveryHostsTest, OverrideBeatsEnvironmentBeatsBuildDefault) {
  ::unsetenv("ORV_APPCONFIG_STAGING_HOST");
  const std::string buildDefault = OrvAppConfigDiscoveryHosts::stagingHost();
  ::setenv("ORV_APPCONFIG_STAGING_HOST", "127.0.0.1:8443", 1);
  EXPECT_EQ(OrvAppConfigDiscoveryHosts::stagingHost(), "127.0.0.1:8443");
  EXPECT_EQ(OrvAppConfigDiscoveryHosts::hostForHostType(5), "127.0.0.1:8443");
  OrvAppConfigDiscoveryHosts::setStagingHost("stage.example.net");
  EXPECT_EQ(OrvAppConfigDiscoveryHosts::stagingHost(), "stage.example.net");
  OrvAppConfigDiscoveryHosts::setStagingHost(std::nullopt);
  ::setenv("ORV_APPCONFIG_STAGING_HOST", "", 1);
  EXPECT_EQ(OrvAppConfigDiscoveryHosts::stagingHost(), buildDefault) << "an empty variable counts as unset";
  ::unsetenv("ORV_APPCONFIG_STAGING_HOST");
}
