#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace vlmProd {

using timerCallback = std::function<void()>;

/// Calls a function periodically from a detached thread, on the steady clock.
///
/// The thread shares ownership of everything it uses: the timer may be destroyed or set again at any time.
/// A stop wakes the thread, which ends without a further call. Nobody waits for that, as a call may itself
/// stop the timer or set it again. Any thread may call the operations; they do not block.
class Timer {
  public:
    Timer() = default;
    /// Does not stop a running loop; call stopTimer() first.
    ~Timer() = default;
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Starts calling `callback` every `interval` milliseconds, first one interval from now; each interval
    /// begins when the previous call has returned. An interval of 0 or less means no pause. Stops a previous
    /// loop. An empty callback throws std::bad_function_call on the timer's thread.
    void setInterval(timerCallback callback, int interval);
    void stopTimer();

    /// Milliseconds until the next call; 0 when none is due or the timer is stopped.
    std::int64_t millisecondsToNextTick() const;

  private:
    struct Loop;

    static void tick(Loop& loop, const timerCallback& callback, int interval);

    mutable std::mutex m_mutex;    ///< guards m_loop
    std::shared_ptr<Loop> m_loop;  ///< the current thread's; empty before the first start
};

}  // namespace vlmProd
