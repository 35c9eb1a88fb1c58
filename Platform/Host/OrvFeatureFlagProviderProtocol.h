#pragma once
// The host application's feature-flag store.
#include <string_view>

class OrvFeatureFlagProviderProtocol {
 public:
  virtual ~OrvFeatureFlagProviderProtocol() = default;
  virtual bool valueForFeatureFlagWithServiceName(std::string_view serviceName, std::string_view featureFlagName) = 0;
};
