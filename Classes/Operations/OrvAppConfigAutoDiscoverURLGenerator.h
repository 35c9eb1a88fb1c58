#pragma once
// User input (an e-mail address or a URL) to the corporate domain, and that to the auto-discover URL.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "OrvURL.h"

// 0: the last two labels of a URL's host; 1: the whole host. E-mail input is unaffected.
using OrvAppConfigAutoDiscoverURLGeneratorMode = std::uint64_t;
inline constexpr OrvAppConfigAutoDiscoverURLGeneratorMode OrvAppConfigAutoDiscoverURLGeneratorModeTwoDomainElements = 0;
inline constexpr OrvAppConfigAutoDiscoverURLGeneratorMode OrvAppConfigAutoDiscoverURLGeneratorModeEntireDomain = 1;

class OrvAppConfigAutoDiscoverURLGenerator {
 public:
  OrvAppConfigAutoDiscoverURLGenerator() = delete;

  static std::optional<OrvURL> generateAutoDiscoverURLForUserInput(const std::optional<std::string>& userInput,
                                                                   std::uint64_t hostType,
                                                                   OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode);
  static std::string descriptionForAutoDiscoverURLGeneratorMode(OrvAppConfigAutoDiscoverURLGeneratorMode mode);
  static std::optional<std::string> corporateDomainFromPossibleEmailAddressUserInput(const std::optional<std::string>& userInput);
  static std::optional<std::string> corporateDomainFromPossibleURLStringUserInput(
      const std::optional<std::string>& userInput, OrvAppConfigAutoDiscoverURLGeneratorMode urlGeneratorMode);
  static std::optional<OrvURL> autoDiscoverBaseURLForHostType(std::uint64_t hostType);
};
