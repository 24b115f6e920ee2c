#pragma once
/// Limits log messages that a hostile or broken peer could cause at any rate.
#include <chrono>
#include <cstdint>
#include <optional>

namespace someip {

/// The first occurrence is logged; later ones are counted and logged together, at most once in an interval.
/// Not thread-safe.
class RateLimit {
  public:
    explicit RateLimit(std::chrono::steady_clock::duration interval = std::chrono::minutes(1))
        : m_interval(interval) {}

    /// Counts one occurrence. If it should be logged, returns the number of occurrences since the last logged
    /// one.
    std::optional<std::uint64_t> note(std::chrono::steady_clock::time_point now) {
        if (m_logged && now - *m_logged < m_interval) {
            ++m_unlogged;
            return std::nullopt;
        }
        m_logged = now;
        const auto unlogged = m_unlogged;
        m_unlogged = 0;
        return unlogged;
    }

  private:
    const std::chrono::steady_clock::duration m_interval;
    std::optional<std::chrono::steady_clock::time_point> m_logged;
    std::uint64_t m_unlogged = 0;
};

}  // namespace someip
