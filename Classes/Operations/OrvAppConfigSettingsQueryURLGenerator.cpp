#include "OrvAppConfigSettingsQueryURLGenerator.h"

#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvSDKStringUtils.h"

namespace {

void replaceAll(std::string& text, std::string_view placeholder, std::string_view value) {
  for (std::size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at + value.size())) {
    text.replace(at, placeholder.size(), value);
  }
}

}  // namespace

std::optional<OrvURL> OrvAppConfigSettingsQueryURLGenerator::generateSettingsQueryURLForStoreURL(
    const std::optional<OrvURL>& storeURL, std::uint64_t hostType, std::uint64_t platform,
    const std::optional<std::string>& channelName) {
  if (!storeURL) return std::nullopt;
  // Always the normalised form: https://store.example.com/Store is sent as https://store.example.com:443/Store.
  const auto normalised = OrvAppConfigServiceUtils::addPortAndSchemeIfNotPresent(*storeURL);
  if (!normalised || normalised->absoluteString().empty()) return std::nullopt;
  const auto encoded = OrvBase64URLEncodedStringFromString(normalised->absoluteString());
  if (!encoded) return std::nullopt;
  return settingsQueryURLWithHostType(hostType, platform, *encoded, channelName);
}

std::optional<OrvURL> OrvAppConfigSettingsQueryURLGenerator::settingsQueryURLWithHostType(
    std::uint64_t hostType, std::uint64_t platform, const std::string& base64EncodedStoreURLString,
    const std::optional<std::string>& channelName) {
  const char* os = platform == 0 ? "ios" : platform == 1 ? "macos" : nullptr;
  if (!os) return std::nullopt;
  std::string text =
      "https://" + OrvAppConfigDiscoveryHosts::hostForHostType(hostType) + "/ads/root/url/{url}/product/kaleth/os/" + os;
  if (channelName) text += "/channel/{channel-name}";
  // An empty channel name keeps its placeholder, and the braces then make the URL invalid: the
  // request is refused rather than sent to the default channel.
  if (channelName && !channelName->empty()) replaceAll(text, "{channel-name}", *channelName);
  replaceAll(text, "{url}", base64EncodedStoreURLString);
  return OrvURL::URLWithString(text);
}
