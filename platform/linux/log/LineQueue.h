#pragma once
/// The way from the threads that log to the one thread that writes: bounded, and never a wait for the writer.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "log/LineBuffer.h"

namespace kyo {

/// How far the wall clock, in nanoseconds since 1970, is ahead of the monotonic one now.
std::int64_t wallClockAheadNs() noexcept;

/// Many producers, one consumer. The consumer sleeps in poll() on wakeDescriptor().
class LineQueue {
  public:
    /// Throws std::system_error when the system has no descriptor left.
    LineQueue(std::size_t maxLines, std::size_t maxBytes);
    ~LineQueue();
    LineQueue(const LineQueue&) = delete;
    LineQueue& operator=(const LineQueue&) = delete;

    /// Stamps the line with the time and queues a copy. False when the queue is full, or when the calling
    /// thread is inside push() already (a signal handler that interrupted it): the line is then lost.
    bool push(std::string_view text, std::uint8_t level) noexcept;

    /// Consumer: replaces `out` by all that waits. The two exchange their memory, so keep `out` for the next
    /// time.
    void drain(LineBuffer& out);
    /// Consumer: announces that it is about to sleep. False when something waits already.
    bool prepareSleep();
    /// Consumer: back from its sleep; takes the wake-ups off the descriptor.
    void finishSleep();
    int wakeDescriptor() const { return m_wake; }
    /// Ends the consumer's sleep. Any thread; async-signal-safe.
    void wake() noexcept;

    std::uint64_t pushed() const noexcept { return m_pushed.load(std::memory_order_acquire); }

  private:
    const std::size_t m_maxLines;
    const std::size_t m_maxBytes;
    int m_wake = -1;

    std::atomic<bool> m_sleeping{false};
    std::atomic<std::uint64_t> m_pushed{0};

    std::mutex m_guard;
    LineBuffer m_lines;  ///< guarded by m_guard
};

}  // namespace kyo
