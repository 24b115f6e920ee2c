#pragma once
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace kyo {

/// Counts how long something took, in fixed classes. add() costs two relaxed atomics.
class Histogram {
  public:
    /// Returns the histogram of this name and creates it on first use; kyo::Status::snapshot() contains it.
    /// Takes a lock: keep the reference.
    static Histogram& get(const std::string& name);

    /// The classes' upper limits, in microseconds; one more class has what is above. The classes just above
    /// 1 s are narrow: the application builds reports 1 s after each tick and measures that delay.
    static constexpr std::array<std::int64_t, 15> kLimits{
        50,      100,       250,       500,       1'000,     2'500,      10'000,    50'000,
        250'000, 1'000'000, 1'050'000, 1'250'000, 2'500'000, 10'000'000, 60'000'000};

    void add(std::chrono::steady_clock::duration took) noexcept {
        const std::int64_t us = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
        std::size_t at = 0;
        while (at < kLimits.size() && us > kLimits[at]) {
            ++at;
        }
        m_counts[at].fetch_add(1, std::memory_order_relaxed);
        m_sumUs.fetch_add(us > 0 ? static_cast<std::uint64_t>(us) : 0, std::memory_order_relaxed);
    }
    /// {"buckets": [[upper limit in s, count in this class], ..., [null, count]], "sumSeconds": s}
    Json::Value value() const;

  private:
    std::array<std::atomic<std::uint64_t>, kLimits.size() + 1> m_counts{};
    std::atomic<std::uint64_t> m_sumUs{0};
};

}  // namespace kyo
