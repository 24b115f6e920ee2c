#pragma once
/// Waits for other threads: on a condition, with a deadline.
#include <chrono>
#include <thread>

namespace vlmTest {

/// Returns true as soon as `condition()` is true, and false at the deadline. Calls `nudge()` before each
/// check, for workers that may have missed a wake-up.
template <typename Condition, typename Nudge>
bool eventually(Condition&& condition, Nudge&& nudge,
                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        nudge();
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

template <typename Condition>
bool eventually(Condition&& condition) {
    return eventually(condition, [] {});
}

}  // namespace vlmTest
