#include "OrvAppConfigServiceUtils.h"
#include "OrvString.h"

namespace OrvAppConfigServiceUtils {

bool isValidEmailAddressComponent(std::string_view string) {
  return !string.empty() && !orv::detail::containsWhitespaceOrNewline(string);
}

bool isEmailAddress(std::string_view string) {
  const auto parts = orv::detail::componentsSeparatedByString(orv::detail::trimWhitespaceAndNewlines(string), "@");
  return parts.size() == 2 && isValidEmailAddressComponent(parts.front()) && isValidEmailAddressComponent(parts.back());
}

std::optional<OrvURL> urlFromString(std::string_view string) {
  const std::string trimmed = orv::detail::trimWhitespaceAndNewlines(string);
  if (trimmed.empty()) return std::nullopt;
  // Case-sensitive on purpose: "HTTPS://host" gains a second prefix and stops naming the host.
  if (trimmed.starts_with("https://") || trimmed.starts_with("http://")) return OrvURL::URLWithString(trimmed);
  return OrvURL::URLWithString("https://" + trimmed);
}

}  // namespace OrvAppConfigServiceUtils
