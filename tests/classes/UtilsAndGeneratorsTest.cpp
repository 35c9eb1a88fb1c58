#include <gtest/gtest.h>

#include <cstdlib>

#include "OrvAppConfigAutoDiscoverURLGenerator.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvAppConfigSettingsQueryURLGenerator.h"
#include "OrvSDKStringUtils.h"
#include "TestSupport.h"

using namespace OrvAppConfigServiceUtils;

namespace {

std::optional<std::string> urlString(const std::optional<OrvURL>& url) {
  return url ? std::optional<std::string>(url->absoluteString()) : std::nullopt;
}

}  // namespace

TEST(OrvAppConfigServiceUtilsTest, EmailAddressRecognition) {
  // Blanks at the edges, non-ASCII ones included, are trimmed; inside they spoil the address.
  for (const char* text : {"user@example.com", "  user@example.com\n", "user@example", "a@b", "\u00a0a@b\u3000"}) {
    EXPECT_TRUE(isEmailAddress(text)) << text;
  }
  for (const char* text : {"user@", "@example.com", "a@b@c", "a@@b", "us er@example.com", "us\u2003er@example.com", ""}) {
    EXPECT_FALSE(isEmailAddress(text)) << text;
  }
  EXPECT_FALSE(isValidEmailAddressComponent(""));
  EXPECT_TRUE(isValidEmailAddressComponent("\"quoted.name\""));
}

TEST(OrvAppConfigServiceUtilsTest, UrlFromUserInput) {
  EXPECT_EQ(urlFromString(""), std::nullopt);
  EXPECT_EQ(urlFromString("   \t"), std::nullopt);
  EXPECT_EQ(urlString(urlFromString("example.com")), "https://example.com");
  EXPECT_EQ(urlString(urlFromString(" example.com/store ")), "https://example.com/store");
  EXPECT_EQ(urlString(urlFromString("http://example.com")), "http://example.com");
  // The prefix test is case-sensitive on purpose: the capitalised scheme becomes part of the text.
  const auto shouted = urlFromString("HTTPS://example.com");
  ASSERT_TRUE(shouted);
  EXPECT_NE(shouted->host(), "example.com");
  EXPECT_EQ(urlFromString("exa mple.com"), std::nullopt);
}

TEST(OrvAppConfigServiceUtilsTest, StoreURLNormalisation) {
  const auto normalise = [](const char* text) { return urlString(addPortAndSchemeIfNotPresent(*OrvURL::URLWithString(text))); };
  EXPECT_EQ(normalise("https://store.example.com/Store"), "https://store.example.com:443/Store");
  EXPECT_EQ(normalise("https://store.example.com:8443/Store"), "https://store.example.com:8443/Store");
  EXPECT_EQ(normalise("http://store.example.com/Store"), "http://store.example.com/Store");
  EXPECT_EQ(normalise("store.example.com/Store"), "https://store.example.com:443/Store");
  EXPECT_EQ(normalise("https://Store.Example.com/Store/?q=1#f"), "https://Store.Example.com:443/Store/?q=1#f");
}

TEST(OrvAppConfigServiceUtilsTest, StoreURLMatching) {
  const auto url = [](const char* text) { return OrvURL::URLWithString(text); };
  EXPECT_TRUE(requestedStoreURL(url("https://Store.Example.com/Store"), url("https://store.example.com:443/store")));
  // Only the requested side gains the default port.
  EXPECT_FALSE(requestedStoreURL(url("https://Store.Example.com/Store"), url("https://store.example.com/store")));
  EXPECT_FALSE(requestedStoreURL(url("https://store.example.com/Store"), url("http://store.example.com:443/Store")));
  EXPECT_TRUE(requestedStoreURL(url("https://store.example.com/Store?a=1"), url("https://store.example.com:443/Store?b=2")));
  EXPECT_TRUE(requestedStoreURL(url("https://store.example.com/Store/"), url("https://store.example.com:443/Store")));
  EXPECT_TRUE(requestedStoreURL(url("https://store.example.com/St%6Fre"), url("https://store.example.com:443/Store")));
  EXPECT_FALSE(requestedStoreURL(url("https://store.example.com/Store"), url("https://other.example.com:443/Store")));
  EXPECT_FALSE(requestedStoreURL(std::nullopt, url("https://store.example.com:443/Store")));
  EXPECT_FALSE(requestedStoreURL(url("https://store.example.com/Store"), std::nullopt));
  EXPECT_FALSE(requestedStoreURL(url("https://store.example.com/Store"), url("/Store")));
}

TEST(OrvAppConfigURLGeneratorsTest, AutoDiscoverDomainsAndURLs) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net:8443");
  using G = OrvAppConfigAutoDiscoverURLGenerator;
  EXPECT_EQ(urlString(G::generateAutoDiscoverURLForUserInput("user@example.com", 0, 0)),
            "https://prod.example.net/ads/root/domain/example.com/");
  EXPECT_EQ(G::corporateDomainFromPossibleEmailAddressUserInput("user@sub.Example.com"), "sub.Example.com");
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("https://store.eu.example.com/Store", 0), "example.com");
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("https://store.eu.example.com/Store", 1), "store.eu.example.com");
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("store.example.com", 0), "example.com");
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("store.example.co.uk", 0), "co.uk");
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("intranet", 0), std::nullopt);
  EXPECT_EQ(G::corporateDomainFromPossibleURLStringUserInput("intranet", 1), "intranet");
  EXPECT_EQ(G::generateAutoDiscoverURLForUserInput("", 0, 0), std::nullopt);
  EXPECT_EQ(G::generateAutoDiscoverURLForUserInput("  \n", 0, 0), std::nullopt);
  EXPECT_EQ(G::generateAutoDiscoverURLForUserInput(std::nullopt, 0, 0), std::nullopt);
  EXPECT_EQ(urlString(G::generateAutoDiscoverURLForUserInput("user@example.com", 7, 0)),
            "https://stage.example.net:8443/ads/root/domain/example.com/");
  EXPECT_EQ(G::descriptionForAutoDiscoverURLGeneratorMode(0), "Two domain elements for URL input only");
  EXPECT_EQ(G::descriptionForAutoDiscoverURLGeneratorMode(1), "Entire domain for URL input");
  EXPECT_EQ(G::descriptionForAutoDiscoverURLGeneratorMode(2), "Unknown");
}

TEST(OrvAppConfigURLGeneratorsTest, UnknownGeneratorModeLogsAndStillReadsEmail) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net:8443");
  auto log = orv::test::LogCollector::install();
  using G = OrvAppConfigAutoDiscoverURLGenerator;
  EXPECT_EQ(G::generateAutoDiscoverURLForUserInput("https://portal.example.com", 0, 2), std::nullopt);
  EXPECT_TRUE(log->contains("Unknown case 2 encountered - defaulting to a nil domain"));
  // The e-mail reading comes first and ignores the mode.
  EXPECT_EQ(urlString(G::generateAutoDiscoverURLForUserInput("user@example.com", 0, 2)),
            "https://prod.example.net/ads/root/domain/example.com/");
}

TEST(OrvAppConfigURLGeneratorsTest, SettingsQueryURLs) {
  const orv::test::DiscoveryHostsOverride hosts("prod.example.net", "stage.example.net:8443");
  using G = OrvAppConfigSettingsQueryURLGenerator;
  const auto store = OrvURL::URLWithString("https://store.example.com/Store");
  const std::string encoded = *OrvBase64URLEncodedStringFromString("https://store.example.com:443/Store");
  EXPECT_EQ(encoded.find('='), std::string::npos);
  EXPECT_EQ(urlString(G::generateSettingsQueryURLForStoreURL(store, 0, 1, std::nullopt)),
            "https://prod.example.net/ads/root/url/" + encoded + "/product/kaleth/os/macos");
  EXPECT_EQ(urlString(G::generateSettingsQueryURLForStoreURL(store, 3, 1, std::nullopt)),
            "https://stage.example.net:8443/ads/root/url/" + encoded + "/product/kaleth/os/macos");
  EXPECT_EQ(urlString(G::generateSettingsQueryURLForStoreURL(store, 0, 0, "beta")),
            "https://prod.example.net/ads/root/url/" + encoded + "/product/kaleth/os/ios/channel/beta");
  EXPECT_EQ(G::generateSettingsQueryURLForStoreURL(store, 0, 2, std::nullopt), std::nullopt);
  EXPECT_EQ(G::generateSettingsQueryURLForStoreURL(store, 0, 0, ""), std::nullopt);
  EXPECT_EQ(G::generateSettingsQueryURLForStoreURL(store, 0, 0, "be ta"), std::nullopt);
  EXPECT_EQ(
      urlString(G::generateSettingsQueryURLForStoreURL(OrvURL::URLWithString("store.example.com/Store"), 0, 0, std::nullopt)),
      "https://prod.example.net/ads/root/url/" + encoded + "/product/kaleth/os/ios");
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
