#include "OrvAppConfigDiscoveryHosts.h"

#include <cstdlib>
#include <mutex>

namespace {

std::mutex& hostsMutex() {
  static std::mutex mutex;
  return mutex;
}
std::optional<std::string> productionOverride;
std::optional<std::string> stagingOverride;

std::string resolve(const std::optional<std::string>& override, const char* variable, const char* fallback) {
  if (override) return *override;
  // An empty variable is treated as unset: an empty host would only produce unusable URLs.
  if (const char* value = std::getenv(variable); value && *value) return value;
  return fallback;
}

}  // namespace

std::string OrvAppConfigDiscoveryHosts::productionHost() {
  std::lock_guard lock(hostsMutex());
  return resolve(productionOverride, "ORV_APPCONFIG_PRODUCTION_HOST", ORV_DEFAULT_PRODUCTION_HOST);
}

std::string OrvAppConfigDiscoveryHosts::stagingHost() {
  std::lock_guard lock(hostsMutex());
  return resolve(stagingOverride, "ORV_APPCONFIG_STAGING_HOST", ORV_DEFAULT_STAGING_HOST);
}

void OrvAppConfigDiscoveryHosts::setProductionHost(std::optional<std::string> host) {
  std::lock_guard lock(hostsMutex());
  productionOverride = std::move(host);
}

void OrvAppConfigDiscoveryHosts::setStagingHost(std::optional<std::string> host) {
  std::lock_guard lock(hostsMutex());
  stagingOverride = std::move(host);
}
