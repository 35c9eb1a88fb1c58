#pragma once
// What the library's own code may ask of the worker pool beyond a single hand-off. Not installed.
#include <functional>
#include <vector>

namespace orv::detail {
// True while a thread runs a turn: a pool task, or work an I/O thread took on itself (runAsTurn). Work
// that would only be handed to the pool again (an operation's completion block, say) can run where it
// is: the thread it would land on is one just like this.
bool isInWorkerTurn() noexcept;
// Runs the tasks here, in order, as one turn of a worker: what they hand to the pool or defer to the
// turn's end is dealt with before this returns, this thread keeping a share of it.
void runAsTurn(std::vector<std::function<void()>>& tasks) noexcept;
// The same, but the tasks are shared out as dispatchBatchToWorkerPool shares them, this thread running
// one share: for a thread with nothing else to do until they are done.
void runSharedAsTurn(std::vector<std::function<void()>>& tasks) noexcept;
// While one lives, process exit does not stop the pool: held by work queued on a thread of the
// library's own (a session's I/O thread) until it has run, as that work may still hand the pool
// something to finish (a cancelled operation's end, the join of that very thread).
class ExitHold {
 public:
  ExitHold();
  ~ExitHold();
  ExitHold(const ExitHold&) = delete;
  ExitHold& operator=(const ExitHold&) = delete;
};
// Runs `loop` on a thread kept for such loops (a session's I/O loop): one an earlier loop left idle,
// or a new one. Once `loop` has returned, the thread is back among the idle and then runs `then`, so
// that a new loop started by whoever `then` wakes finds it. Takes both only when it answers true;
// false when no thread can be had (none could be started, or the process is exiting).
bool runOnLoopThread(std::function<void()>& loop, std::function<void()>& then);
// Hands over several tasks with one wake-up per worker rather than one per task. Tasks are spread over
// at most as many pool tasks as the machine has cores, each running its share in order. Called from a
// pool thread, they wait for the end of its turn, and that thread then runs one share itself. Takes the
// tasks out of `tasks`; throws only when they cannot be queued (out of memory), and `tasks` then still
// holds them all, for the caller to run some other way.
void dispatchBatchToWorkerPool(std::vector<std::function<void()>>& tasks);
// On a pool thread, keeps `action` until the end of the thread's turn (its task, or its share of a
// batch) and answers true; anywhere else answers false, and the caller acts at once. Lets a burst of
// requests started in one turn wake their I/O thread once rather than once each.
bool deferToEndOfTurn(std::function<void()> action);
}  // namespace orv::detail
