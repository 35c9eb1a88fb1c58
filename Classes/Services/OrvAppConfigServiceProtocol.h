#pragma once
// The three entry points, so that a host can hold either the service or its substitute.
#include <optional>
#include <string>

#include "OrvAppConfigServiceTypes.h"

class OrvAppConfigServiceProtocol {
 public:
  virtual ~OrvAppConfigServiceProtocol() = default;

  virtual void asyncStartAutodiscoveryForUserInput(std::optional<std::string> userInput, std::uint64_t hostType,
                                                   OrvAppConfigAutoDiscoveryCompletionBlock completionBlock) = 0;
  virtual void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                       std::uint64_t platform,
                                                       OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) = 0;
  virtual void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType,
                                                       std::uint64_t platform, std::optional<std::string> channelName,
                                                       OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) = 0;
};
