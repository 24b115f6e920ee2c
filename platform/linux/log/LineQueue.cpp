#include "log/LineQueue.h"

#include <ctime>

namespace kyo {

namespace {

/// Set while this thread is inside push(). A signal handler (after abort(), say) may interrupt push() on a
/// thread that holds the lock; waiting for the lock there would hang the process.
thread_local volatile bool t_inPush = false;

std::int64_t now(clockid_t clock) noexcept {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

std::int64_t wallClockAheadNs() noexcept {
    return now(CLOCK_REALTIME) - now(CLOCK_MONOTONIC);
}

LineQueue::LineQueue(std::size_t maxLines, std::size_t maxBytes)
    : m_maxLines(maxLines), m_maxBytes(maxBytes) {}

bool LineQueue::push(std::string_view text, std::uint8_t level) noexcept {
    if (t_inPush) {
        return false;
    }
    t_inPush = true;
    // One clock is enough: the consumer adds the offset of the wall clock.
    const LogLine line{text, now(CLOCK_MONOTONIC), level};
    bool taken = false;
    try {
        const std::lock_guard<std::mutex> lock(m_guard);
        if (m_lines.lines() < m_maxLines && m_lines.bytes() + LineBuffer::weight(text.size()) <= m_maxBytes) {
            m_lines.append(line);
            m_pushed.fetch_add(1, std::memory_order_release);
            taken = true;
        }
    } catch (...) {  // no memory: the line is lost, as when the queue is full
        taken = false;
    }
    if (taken && m_sleeping.load(std::memory_order_seq_cst) && m_sleeping.exchange(false)) {
        wake();
    }
    t_inPush = false;
    return taken;
}

void LineQueue::drain(LineBuffer& out) {
    while (!out.empty()) {
        out.pop();
    }
    const std::lock_guard<std::mutex> lock(m_guard);
    m_lines.swap(out);
}

bool LineQueue::prepareSleep() {
    m_sleeping.store(true, std::memory_order_seq_cst);
    const std::lock_guard<std::mutex> lock(m_guard);
    if (m_lines.empty()) {
        return true;
    }
    m_sleeping.store(false, std::memory_order_relaxed);
    return false;
}

void LineQueue::finishSleep() {
    m_sleeping.store(false, std::memory_order_relaxed);
    m_wake.reset();
}

}  // namespace kyo
