#pragma once
// Seams that let tests reach code a host never calls directly. Not installed.

namespace orv::detail {
// Makes the next `count` dispatches to the worker pool fail as if out of memory, so tests can reach
// those paths.
void failNextWorkerPoolDispatchesForTesting(int count);
}  // namespace orv::detail
