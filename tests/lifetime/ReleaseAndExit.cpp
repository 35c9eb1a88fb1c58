// Starts a burst of discoveries and settings requests against a discovery service, lets go of
// everything at some point of their flight and returns from main at once. Run in a loop under the
// sanitizers: any thread left running, handle freed late or leak shows up as a failed run.
//
//   orv-release-and-exit HOST:PORT CA_FILE DELAY_MS main|worker|completion
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvAppConfigService.h"
#include "OrvCurlURLSession.h"
#include "OrvMainQueue.h"
#include "OrvSecurityUtilsService.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s HOST:PORT CA_FILE DELAY_MS main|worker|completion\n", argv[0]);
    return 64;
  }
  const std::string releaseFrom = argv[4];
  OrvAppConfigDiscoveryHosts::setProductionHost(std::string(argv[1]));
  auto session = OrvCurlURLSession::create({.caFile = argv[2]});
  auto service = OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                         OrvSecurityUtilsService::create(), nullptr);
  if (!session || !service) return 70;

  const auto ignore = [](auto, auto, auto) {};
  const OrvAppConfigStoreURLSet stores{*OrvURL::URLWithString("https://store.example.com/Store"),
                                       *OrvURL::URLWithString("https://apps.example.com/Store")};
  for (int i = 0; i < 50; ++i) {
    // Some answer at once, some are held back by the server, so the release finds requests at every step.
    service->asyncStartAutodiscoveryForUserInput(i % 2 ? "user@example.com" : "user@slow.example", 0, ignore);
    service->asyncStartSettingsRetrievalForStoreUrls(stores, 0, i % 2, ignore);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[3])));

  if (releaseFrom == "worker") {
    std::thread([&] {
      service.reset();
      session.reset();
    }).join();
  } else if (releaseFrom == "completion") {
    // A refused request completes on the main queue; the service goes inside its completion block.
    bool released = false;
    auto* held = &service;
    service->asyncStartAutodiscoveryForUserInput("", 0, [&released, held](auto, auto, auto) {
      held->reset();
      released = true;
    });
    session.reset();
    OrvMainQueue::runUntil([&] { return released; }, std::chrono::seconds(30));
    if (!released) return 71;
  } else {
    service.reset();
    session.reset();
  }
  return 0;
}
