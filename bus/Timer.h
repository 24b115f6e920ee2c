#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace vlmProd {

using timerCallback = std::function<void()>;

/// Calls a function again and again from a detached thread of its own, on the steady clock.
///
/// The thread shares ownership of all that it uses: the timer may be destroyed or set again at any time. A
/// thread whose timer was stopped ends, without a further call, when its current sleep ends. The operations
/// may be called from any thread and do not block.
class Timer {
  public:
    Timer() = default;
    /// A running loop goes on without the timer; stop it first.
    ~Timer() = default;
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Starts calling `callback` every `interval` milliseconds, the first time one interval from now; each
    /// interval begins when the previous call has returned. 0 or less: without any pause. A loop that was
    /// started before is stopped. An empty callback raises std::bad_function_call on the timer's thread.
    void setInterval(timerCallback callback, int interval);
    void stopTimer();

    /// Milliseconds until the next call; 0 when none is due or the timer is stopped.
    std::int64_t millisecondsToNextTick() const;

  private:
    struct Loop {
        std::atomic<bool> clear{false};           ///< true: stopped
        std::atomic<std::int64_t> nextTickMs{0};  ///< on the steady clock
    };

    static void tick(const std::shared_ptr<Loop>& loop, const timerCallback& callback, int interval);

    mutable std::mutex m_mutex;    ///< guards m_loop
    std::shared_ptr<Loop> m_loop;  ///< the current thread's; empty before the first start
};

}  // namespace vlmProd
