#pragma once
// A substitute for the service: each entry point calls the block of its own with exactly its own
// arguments, unchanged — no trimming, no feature flags, no queue, no change of thread. The caller's
// blocks decide when and where the completion runs. A block must be set before its entry point is used.
#include <functional>
#include <optional>
#include <string>

#include "OrvAppConfigServiceProtocol.h"

class MockOrvAppConfigService : public OrvAppConfigServiceProtocol {
 public:
  using AutodiscoveryBlock = std::function<void(std::optional<std::string> userInput, std::uint64_t hostType,
                                                OrvAppConfigAutoDiscoveryCompletionBlock completionBlock)>;
  using SettingsRetrievalBlock =
      std::function<void(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                         OrvAppConfigSettingsRetrievalCompletionBlock completionBlock)>;
  using SettingsRetrievalWithChannelNameBlock =
      std::function<void(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                         std::optional<std::string> channelName, OrvAppConfigSettingsRetrievalCompletionBlock completionBlock)>;

  AutodiscoveryBlock asyncStartAutodiscoveryForUserInputBlock;
  SettingsRetrievalBlock asyncStartSettingsRetrievalForStoreUrlsBlock;
  SettingsRetrievalWithChannelNameBlock asyncStartSettingsRetrievalForStoreUrlsBlockWithChannelName;

  void asyncStartAutodiscoveryForUserInput(std::optional<std::string> userInput, std::uint64_t hostType,
                                           OrvAppConfigAutoDiscoveryCompletionBlock completionBlock) override {
    asyncStartAutodiscoveryForUserInputBlock(std::move(userInput), hostType, std::move(completionBlock));
  }
  void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                                               OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) override {
    asyncStartSettingsRetrievalForStoreUrlsBlock(std::move(storeUrls), hostType, platform, std::move(completionBlock));
  }
  void asyncStartSettingsRetrievalForStoreUrls(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                                               std::optional<std::string> channelName,
                                               OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) override {
    asyncStartSettingsRetrievalForStoreUrlsBlockWithChannelName(std::move(storeUrls), hostType, platform, std::move(channelName),
                                                                std::move(completionBlock));
  }
};
