// A whole auto-discovery (query, certificate fetch, verification, delivery on the main queue) against
// the floor of one GET on a kept-alive connection to the same local emulator.
#include <condition_variable>
#include <mutex>

#include "BenchFloor.h"
#include "EmulatorHarness.h"
#include "OrvMainQueue.h"

namespace {

// ES256 on the emulator's side: an RSA signature costs the server ~0.7 ms per answer, which would
// hide the client's own costs. The client then verifies ES256, the slower of the two to verify.
orv::test::EmulatorHarness& harness() {
  static auto* instance = [] {
    orv::test::HarnessOptions options;
    options.algorithm = "ES256";
    return new orv::test::EmulatorHarness(options);
  }();
  return *instance;
}

// One GET of the unsigned public-key answer over the harness's session, waited for.
void getOnce(OrvURLSession& session, const OrvURL& url) {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  auto task = session.dataTaskWithRequest(OrvURLRequest(url), [&](auto, auto, auto) {
    std::lock_guard lock(mutex);
    finished = true;
    done.notify_one();
  });
  task->resume();
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return finished; });
}

double keptAliveGetFloor() {
  auto& h = harness();
  const auto url = *OrvURL::URLWithString(h.emulator().baseURL() + "/ads/root/publickey");
  getOnce(*h.session, url);  // opens the connection
  return orv::bench::measureFloor([&] { getOnce(*h.session, url); }, 11, 20);
}

void BM_AutoDiscoveryRoundTrip(benchmark::State& state) {
  auto& h = harness();
  static const double floor = keptAliveGetFloor();
  orv::bench::FloorRatio ratio(state, floor);
  for (auto _ : state) {
    bool done = false;
    h.service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, [&](auto status, auto, auto) {
      if (status != 0) state.SkipWithError("auto-discovery failed");
      done = true;
    });
    OrvMainQueue::runUntil([&] { return done; }, std::chrono::seconds(30));
  }
}
BENCHMARK(BM_AutoDiscoveryRoundTrip)->Unit(benchmark::kMillisecond);

}  // namespace
