// A host with a plain poll(2) loop. The bridge only appends the task and bumps an eventfd, so it never
// blocks the library's worker; the loop runs the tasks on this thread, oldest first.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <mutex>

#include "ExampleHost.h"

int main(int argc, char** argv) {
  const auto options = example::parseArguments(argc, argv);
  if (!options) return 2;
  auto service = example::makeService(*options);
  if (!service) return 1;

  const int wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeup < 0) return 1;
  std::mutex mutex;
  std::deque<OrvMainQueue::Task> tasks;
  OrvMainQueue::setBridge([&](OrvMainQueue::Task task) {
    {
      std::lock_guard lock(mutex);
      tasks.push_back(std::move(task));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = write(wakeup, &one, sizeof one);  // fails only if the counter is full: already awake
  });

  std::optional<int> exitCode;
  example::discoverThenRetrieveSettings(service, options->input, [&](int code) { exitCode = code; });
  while (!exitCode) {
    pollfd fd{.fd = wakeup, .events = POLLIN, .revents = 0};
    if (poll(&fd, 1, -1) < 0 && errno != EINTR) break;
    std::uint64_t count;
    [[maybe_unused]] auto drained = read(wakeup, &count, sizeof count);
    // Take the whole batch so that the bridge is never held up while tasks run; a task's own
    // dispatches land in the deque and wake the next round.
    std::deque<OrvMainQueue::Task> batch;
    {
      std::lock_guard lock(mutex);
      batch.swap(tasks);
    }
    for (auto& task : batch) task();
  }

  OrvMainQueue::setBridge({});
  close(wakeup);
  return exitCode.value_or(1);
}
