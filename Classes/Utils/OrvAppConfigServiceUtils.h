#pragma once
// What the library accepts as user input and how it compares store URLs. Pure functions: no state,
// no logging; a failure is false or nothing.
#include <optional>
#include <string>
#include <string_view>

#include "OrvURL.h"

namespace OrvAppConfigServiceUtils {

// On strings.
bool isValidEmailAddressComponent(std::string_view string);
bool isEmailAddress(std::string_view string);
std::optional<OrvURL> urlFromString(std::string_view string);

// On URLs.
// A missing scheme becomes https; an https URL without a port gains 443. Nothing else changes.
std::optional<OrvURL> addPortAndSchemeIfNotPresent(const OrvURL& url);
// Whether an answer naming responseURL is about the store requestedURL.
bool requestedStoreURL(const std::optional<OrvURL>& requestedStoreURL, const std::optional<OrvURL>& matchesResponseURL);

}  // namespace OrvAppConfigServiceUtils
