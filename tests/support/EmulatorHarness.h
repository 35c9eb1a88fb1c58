#pragma once
// A discovery emulator on loopback with fresh material, and a service wired to it over real TLS.
#include <filesystem>

#include "OrvAppConfigService.h"
#include "OrvCurlURLSession.h"
#include "OrvDiscoveryEmulator.h"
#include "OrvSecurityUtilsService.h"
#include "TestSupport.h"

namespace orv::test {

// A directory removed with its contents when the object goes.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::filesystem::path& path() const noexcept { return path_; }
  std::string file(const char* name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
// Where the emulator answers for a store's settings, the store URL as the client normalises it.
std::string settingsPath(const std::string& normalisedStore);
// Request paths an emulator saw, in order.
std::vector<std::string> requestPaths(const orv::emulator::DiscoveryEmulator& emulator);

struct HarnessOptions {
  std::optional<std::string> catalogJSON;
  // The benchmark signs with ES256, which costs the emulator less per answer.
  std::string algorithm = "RS256";
  // Runs on the freshly generated material before the emulator reads it.
  std::function<void(const class TemporaryDirectory&)> prepareMaterial;
};

class EmulatorHarness {
  // Declared first so that they go last: the service and its session before the emulator they talk to.
  TemporaryDirectory material_;
  std::unique_ptr<orv::emulator::DiscoveryEmulator> emulator_;
  std::optional<DiscoveryHostsOverride> hosts_;

 public:
  explicit EmulatorHarness(HarnessOptions options = {});

  orv::emulator::DiscoveryEmulator& emulator() { return *emulator_; }
  const TemporaryDirectory& material() const { return material_; }
  std::shared_ptr<OrvCurlURLSession> session;
  std::shared_ptr<OrvAppConfigService> service;

  // Rebuilds the service on the same session, with other feature flags.
  void rebuildService(std::shared_ptr<OrvFeatureFlagProviderProtocol> featureFlags = nullptr);
  std::vector<std::string> requestPaths() const { return orv::test::requestPaths(*emulator_); }
};

// Collects the traces a service hands its diagnostics delegate, and whether each came on the main queue.
struct TraceCollector : OrvAppConfigDiagnosticsDelegate {
  std::vector<std::shared_ptr<const OrvAppConfigRequestTrace>> traces;
  bool onMainQueue = true;
  void didFinishRequestWithTrace(std::shared_ptr<const OrvAppConfigRequestTrace> trace) override {
    onMainQueue = onMainQueue && OrvMainQueue::isCurrent();
    traces.push_back(std::move(trace));
  }
};

}  // namespace orv::test
