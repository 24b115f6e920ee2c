#pragma once
/// Replaces the backend client in the benchmark of a tick; linked before the platform's.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "kyo/Json.h"

namespace vlmBench {

class CountingClient {
  public:
    using Clock = std::chrono::steady_clock;

    static CountingClient& instance();

    /// Sends the backend's message that opens the channel and confirms the last report.
    void open();
    /// Waits for `count` envelopes. Returns the time of the last one, or nothing after 10 s.
    std::optional<Clock::time_point> waitFor(std::uint64_t count);
    std::uint64_t count();
    /// Length of the report in the last envelope.
    std::size_t reportBytes();

    void taken(const kyo::Json::Value& envelope);

    std::function<void(kyo::Json::Value)> onMasterControl;
    std::atomic<bool> started{false};

  private:
    std::mutex m_guard;
    std::condition_variable m_changed;
    Clock::time_point m_last;
    std::uint64_t m_count = 0;
    std::size_t m_bytes = 0;
};

}  // namespace vlmBench
