#include "OrvAppConfigAutoDiscoverURLGenerator.h"

#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigServiceLogger.h"
#include "OrvAppConfigServiceUtils.h"
#include "OrvString.h"

std::optional<OrvURL> OrvAppConfigAutoDiscoverURLGenerator::generateAutoDiscoverURLForUserInput(
    const std::optional<std::string>& userInput, std::uint64_t hostType,
    OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode) {
  // The e-mail reading always wins: input that passes the e-mail test is never read as a URL.
  auto domain = corporateDomainFromPossibleEmailAddressUserInput(userInput);
  if (!domain) domain = corporateDomainFromPossibleURLStringUserInput(userInput, urlGeneratorMode);
  if (!domain || domain->empty()) return std::nullopt;
  const auto base = autoDiscoverBaseURLForHostType(hostType);
  if (!base) return std::nullopt;
  return base->URLByAppendingPathComponent(*domain + "/");
}

std::string OrvAppConfigAutoDiscoverURLGenerator::descriptionForAutoDiscoverURLGeneratorMode(
    OrvAppConfigAutoDiscoverURLGeneratorMode mode) {
  switch (mode) {
    case OrvAppConfigAutoDiscoverURLGeneratorModeTwoDomainElements:
      return "Two domain elements for URL input only";
    case OrvAppConfigAutoDiscoverURLGeneratorModeEntireDomain:
      return "Entire domain for URL input";
    default:
      return "Unknown";
  }
}

std::optional<std::string> OrvAppConfigAutoDiscoverURLGenerator::corporateDomainFromPossibleEmailAddressUserInput(
    const std::optional<std::string>& userInput) {
  if (!userInput || !OrvAppConfigServiceUtils::isEmailAddress(*userInput)) return std::nullopt;
  const auto parts = orv::detail::componentsSeparatedByString(*userInput, "@");
  return orv::detail::trimWhitespaceAndNewlines(parts.back());
}

std::optional<std::string> OrvAppConfigAutoDiscoverURLGenerator::corporateDomainFromPossibleURLStringUserInput(
    const std::optional<std::string>& userInput, OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode) {
  if (!userInput) return std::nullopt;
  const auto url = OrvAppConfigServiceUtils::urlFromString(*userInput);
  if (!url) return std::nullopt;
  const auto host = url->host();
  if (!host || host->empty()) return std::nullopt;
  const auto labels = orv::detail::componentsSeparatedByString(*host, ".");
  switch (urlGeneratorMode) {
    case OrvAppConfigAutoDiscoverURLGeneratorModeEntireDomain:
      return *host;
    case OrvAppConfigAutoDiscoverURLGeneratorModeTwoDomainElements:
      // Purely positional, with no public-suffix list: store.example.co.uk gives co.uk.
      if (labels.size() < 2) return std::nullopt;
      return labels[labels.size() - 2] + "." + labels.back();
    default:
      ORV_LOG_ERROR("Unknown case %lu encountered - defaulting to a nil domain", urlGeneratorMode);
      return std::nullopt;
  }
}

std::optional<OrvURL> OrvAppConfigAutoDiscoverURLGenerator::autoDiscoverBaseURLForHostType(std::uint64_t hostType) {
  return OrvURL::URLWithString("https://" + OrvAppConfigDiscoveryHosts::hostForHostType(hostType) + "/ads/root/domain/");
}
