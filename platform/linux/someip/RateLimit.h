#pragma once
/// For messages about what a hostile or broken peer can repeat at will.
#include <chrono>
#include <cstdint>
#include <optional>

namespace someip {

/// The first occurrence is told, the others are counted and told together, at most once in an interval.
/// Not thread-safe.
class RateLimit {
  public:
    explicit RateLimit(std::chrono::steady_clock::duration interval = std::chrono::minutes(1))
        : m_interval(interval) {}

    /// Notes one occurrence. When it is to be told: the number of those since the last one that was told.
    std::optional<std::uint64_t> note(std::chrono::steady_clock::time_point now) {
        if (m_told && now - *m_told < m_interval) {
            ++m_untold;
            return std::nullopt;
        }
        m_told = now;
        const auto untold = m_untold;
        m_untold = 0;
        return untold;
    }

  private:
    const std::chrono::steady_clock::duration m_interval;
    std::optional<std::chrono::steady_clock::time_point> m_told;
    std::uint64_t m_untold = 0;
};

}  // namespace someip
