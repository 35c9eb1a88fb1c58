#pragma once
// Seams that let tests reach code a host never calls directly. Not installed.
#include <chrono>

namespace orv::detail {
// How long an idle session loop sleeps when nothing wakes it (a second unless set). Tests stretch it
// so that a request that failed to wake an idle loop hangs, and fails, rather than starts a little late.
void setIdlePollIntervalForTesting(std::chrono::milliseconds interval);
}  // namespace orv::detail
