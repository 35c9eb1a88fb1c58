#include "EmulatorHarness.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

#include "OrvCurlURLSessionTesting.h"
#include "OrvSDKStringUtils.h"

namespace orv::test {

TemporaryDirectory::TemporaryDirectory() {
  std::random_device random;
  path_ = std::filesystem::temp_directory_path() / ("orv-test-" + std::to_string(random()) + std::to_string(random()));
  std::filesystem::create_directories(path_);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string settingsPath(const std::string& normalisedStore) {
  return "/ads/root/url/" + OrvBase64URLEncodedStringFromString(normalisedStore).value_or("") + "/product/kaleth/os/ios";
}

EmulatorHarness::EmulatorHarness(HarnessOptions options) {
  // An idle session loop otherwise looks at its queue every second anyway, which would turn a
  // request that failed to wake it into one that merely starts late. Here it hangs, and the test fails.
  orv::detail::setIdlePollIntervalForTesting(std::chrono::hours(1));
  std::string error;
  if (!orv::emulator::generateMaterial(material_.path().string(), &error)) ADD_FAILURE() << error;
  if (options.prepareMaterial) options.prepareMaterial(material_);
  emulator_ = orv::emulator::DiscoveryEmulator::start(
      {.materialDir = material_.path().string(), .catalogJSON = options.catalogJSON, .algorithm = options.algorithm}, &error);
  if (!emulator_) {
    ADD_FAILURE() << "emulator: " << error;
    return;
  }
  hosts_.emplace(emulator_->hostAndPort());
  session = OrvCurlURLSession::create({.caFile = emulator_->tlsCAFile()});
  rebuildService();
}

void EmulatorHarness::rebuildService(std::shared_ptr<OrvFeatureFlagProviderProtocol> featureFlags) {
  service = OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                    OrvSecurityUtilsService::create(), std::move(featureFlags));
}

std::vector<std::string> requestPaths(const orv::emulator::DiscoveryEmulator& emulator) {
  std::vector<std::string> paths;
  for (const auto& request : emulator.requests()) paths.push_back(request.target);
  return paths;
}

}  // namespace orv::test
