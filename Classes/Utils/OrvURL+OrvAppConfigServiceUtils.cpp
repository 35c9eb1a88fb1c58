#include "OrvAppConfigServiceUtils.h"
#include "OrvSDKStringUtils.h"

namespace OrvAppConfigServiceUtils {

std::optional<OrvURL> addPortAndSchemeIfNotPresent(const OrvURL& url) {
  const auto scheme = url.scheme();
  // Already in its normal form, as most store URLs are after their first trip: nothing to rebuild.
  if (scheme == "http" || (scheme == "https" && url.port())) return url;
  if (url.absoluteString().empty()) return std::nullopt;
  // Parsed again only when a scheme is put in front: that changes what the rest of the text means.
  auto normalised = scheme == "https" ? std::optional<OrvURL>(url) : OrvURL::URLWithString("https://" + url.absoluteString());
  if (!normalised) return std::nullopt;
  // Only the secure default is made explicit; plain http stays without a port.
  if (!normalised->port() && normalised->scheme() == "https") return normalised->URLBySettingPort(443);
  return normalised;
}

bool requestedStoreURL(const std::optional<OrvURL>& requestedStoreURL, const std::optional<OrvURL>& matchesResponseURL) {
  if (!requestedStoreURL || !matchesResponseURL) return false;
  const auto requested = addPortAndSchemeIfNotPresent(*requestedStoreURL);
  if (!requested) return false;
  const OrvURL& response = *matchesResponseURL;
  if (requested->port() != response.port()) return false;
  if (!OrvIsCaseInsensitiveEqualToString(requested->scheme(), response.scheme())) return false;
  if (!OrvIsCaseInsensitiveEqualToString(requested->host(), response.host())) return false;
  return OrvIsCaseInsensitiveEqualToString(requested->path(), response.path());
}

}  // namespace OrvAppConfigServiceUtils
