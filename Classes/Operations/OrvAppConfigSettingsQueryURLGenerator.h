#pragma once
// The URL that asks for one store's settings. The store URL travels base64url-encoded (without "="
// padding) inside the path, so the service looks it up exactly as the client knows it.
#include <cstdint>
#include <optional>
#include <string>

#include "OrvURL.h"

class OrvAppConfigSettingsQueryURLGenerator {
 public:
  OrvAppConfigSettingsQueryURLGenerator() = delete;

  static std::optional<OrvURL> generateSettingsQueryURLForStoreURL(const std::optional<OrvURL>& storeURL, std::uint64_t hostType,
                                                                   std::uint64_t platform,
                                                                   const std::optional<std::string>& channelName);
  static std::optional<OrvURL> settingsQueryURLWithHostType(std::uint64_t hostType, std::uint64_t platform,
                                                            const std::string& base64EncodedStoreURLString,
                                                            const std::optional<std::string>& channelName);
};
