// The smallest host: no event loop of its own, so it drains the main queue on its main thread until
// the flow has finished, then releases everything and returns at once (the library joins its threads).
#include <chrono>

#include "ExampleHost.h"

int main(int argc, char** argv) {
  const auto options = example::parseArguments(argc, argv);
  if (!options) return 2;
  auto service = example::makeService(*options);
  if (!service) return 1;

  std::optional<int> exitCode;
  example::discoverThenRetrieveSettings(service, options->input, [&](int code) { exitCode = code; });
  // The session times out stalled transfers itself; this bound only keeps a broken setup from hanging.
  if (!OrvMainQueue::runUntil([&] { return exitCode.has_value(); }, std::chrono::minutes(5))) {
    std::fprintf(stderr, "no answer in time\n");
    return 1;
  }
  return *exitCode;
}
