// A host with a GLib main loop. The bridge pushes onto a GAsyncQueue (never blocks) and makes sure one
// idle source is pending to drain it. One queue with one consumer keeps the library's order without
// leaning on how GLib orders sources of equal priority; g_main_context_invoke is no choice at all, as
// it runs the task at once when called on this thread.
#include <glib.h>

#include <atomic>

#include "ExampleHost.h"

namespace {

GAsyncQueue* tasks;
std::atomic<bool> drainPending{false};

gboolean drainTasks(gpointer) {
  // Cleared before popping: a task pushed after this point either is popped below or schedules a new drain.
  drainPending = false;
  while (auto* task = static_cast<OrvMainQueue::Task*>(g_async_queue_try_pop(tasks))) {
    (*task)();
    delete task;
  }
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = example::parseArguments(argc, argv);
  if (!options) return 2;
  auto service = example::makeService(*options);
  if (!service) return 1;

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  tasks = g_async_queue_new_full([](gpointer task) { delete static_cast<OrvMainQueue::Task*>(task); });
  OrvMainQueue::setBridge([](OrvMainQueue::Task task) {
    g_async_queue_push(tasks, new OrvMainQueue::Task(std::move(task)));
    if (!drainPending.exchange(true)) g_idle_add(drainTasks, nullptr);
  });

  std::optional<int> exitCode;
  example::discoverThenRetrieveSettings(service, options->input, [&](int code) {
    exitCode = code;
    g_main_loop_quit(loop);
  });
  g_main_loop_run(loop);

  OrvMainQueue::setBridge({});
  g_main_loop_unref(loop);
  g_async_queue_unref(tasks);
  return exitCode.value_or(1);
}
