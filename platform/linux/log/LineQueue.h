#pragma once
/// The bounded queue between the threads that log and the thread that writes. Logging never waits for the
/// writer.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "kyo/WakeFd.h"
#include "log/LineBuffer.h"

namespace kyo {

/// The current difference, in nanoseconds, of the wall clock (since 1970) to the monotonic clock.
std::int64_t wallClockAheadNs() noexcept;

/// Many producers, one consumer. The consumer sleeps in poll() on wakeDescriptor().
class LineQueue {
  public:
    /// Throws std::system_error when the system has no descriptor left.
    LineQueue(std::size_t maxLines, std::size_t maxBytes);

    /// Adds the time to the line and queues a copy. Returns false, and the line is lost, when the queue is
    /// full or the calling thread is already inside push() (a signal handler that interrupted it).
    bool push(std::string_view text, std::uint8_t level) noexcept;

    /// Consumer: replaces `out` by all waiting lines. The buffers swap their memory, so pass the same `out`
    /// again.
    void drain(LineBuffer& out);
    /// Consumer: to be called before sleeping. Returns false when lines are waiting.
    bool prepareSleep();
    /// Consumer: to be called after sleeping; resets the descriptor.
    void finishSleep();
    int wakeDescriptor() const { return m_wake.get(); }
    /// Wakes the consumer. Any thread; async-signal-safe.
    void wake() noexcept { m_wake.wake(); }

    std::uint64_t pushed() const noexcept { return m_pushed.load(std::memory_order_acquire); }

  private:
    const std::size_t m_maxLines;
    const std::size_t m_maxBytes;
    const WakeFd m_wake;

    std::atomic<bool> m_sleeping{false};
    std::atomic<std::uint64_t> m_pushed{0};

    std::mutex m_guard;
    LineBuffer m_lines;  ///< guarded by m_guard
};

}  // namespace kyo
