#pragma once
#include <atomic>

namespace vlmTest {

/// This program's nanosleep() counts the calls of each thread, and answers as after a signal while any are
/// due.
extern thread_local int t_pauses;
extern std::atomic<int> g_signalsDue;

}  // namespace vlmTest
