#pragma once
// The main queue: one process-wide serial executor for everything the library hands back to the
// host. The host either drains it on its main thread (run, runUntil, drain) or bridges it to its own
// event loop with setBridge. dispatchAsync never runs the task on the calling thread.
//
// A task that throws (a host's completion block) propagates its exception out of the call that ran
// it (drain, runUntil, run, or the host's invocation of a bridged task); the task has already left the
// queue, and every other task is still there for the next call.
#include <chrono>
#include <cstddef>
#include <functional>

class OrvMainQueue {
 public:
  using Task = std::function<void()>;
  // Receives each task; the host's loop must run them one at a time, in order, on its main thread.
  using Bridge = std::function<void(Task)>;

  static void dispatchAsync(Task task);

  // Runs the tasks queued so far and those they queue in turn, until the queue is empty; returns how
  // many ran.
  static std::size_t drain();
  // Runs tasks as they come until the predicate holds (checked after each task) or the timeout
  // passes; returns the predicate's final value.
  static bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);
  // Runs tasks as they come until stop() is called.
  static void run();
  static void stop();

  // Hands every queued and future task to the bridge instead; an empty bridge removes it, and tasks
  // queued from then on wait in the queue again. The bridge is called on whichever thread queues a task
  // (usually a library worker, sometimes the caller of setBridge or of an entry point): it must not
  // block, and the host's loop must run the tasks one at a time, in the order given, on its main
  // thread. Once setBridge returns, the previous bridge is never called again. A bridge that throws
  // loses that task.
  static void setBridge(Bridge bridge);

  // True while the calling thread is running a main-queue task.
  static bool isCurrent() noexcept;
};
