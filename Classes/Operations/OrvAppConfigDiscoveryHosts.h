#pragma once
// Where the discovery service lives. The host names are deployment configuration: a default set at
// build time, overridden by the environment variables ORV_APPCONFIG_PRODUCTION_HOST and
// ORV_APPCONFIG_STAGING_HOST, overridden in turn by the host application through this class.
// A host may carry a port ("127.0.0.1:8443").
#include <optional>
#include <string>

class OrvAppConfigDiscoveryHosts {
 public:
  OrvAppConfigDiscoveryHosts() = delete;

  static std::string productionHost();
  static std::string stagingHost();
  // nullopt goes back to the environment or build default.
  static void setProductionHost(std::optional<std::string> host);
  static void setStagingHost(std::optional<std::string> host);

  // Host type 0 is production, every other value staging (auto-discover and settings endpoints).
  static std::string hostForHostType(unsigned long long hostType) { return hostType == 0 ? productionHost() : stagingHost(); }
};
