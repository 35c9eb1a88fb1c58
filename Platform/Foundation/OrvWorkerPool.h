#pragma once
// What the library's own code may ask of the worker pool beyond a single hand-off. Not installed.
#include <functional>
#include <vector>

namespace orv::detail {
// True on one of the pool's threads. Work that would only be handed to the pool again (an operation's
// completion block, say) can run where it is: the thread it would land on is one just like this.
bool isWorkerPoolThread() noexcept;
// Hands over several tasks with one wake-up per worker rather than one per task. Tasks are spread over
// at most as many pool tasks as the machine has cores, each running its share in order. Throws only
// when they cannot be queued (out of memory); then none of them was.
void dispatchBatchToWorkerPool(std::vector<std::function<void()>> tasks);
// Inside a batch's share, keeps `action` until the share's last task has returned and answers true;
// anywhere else answers false, and the caller acts at once. Lets a burst of requests started in one
// share wake their I/O thread once rather than once each.
bool deferToEndOfBatch(std::function<void()> action);
// dispatchToWorkerPool, except inside a batch's share: there the task waits for the share's end and
// goes out with the others the share handed over, as one batch. For work nobody in the share waits for.
void dispatchToWorkerPoolAfterShare(std::function<void()> task);
}  // namespace orv::detail
