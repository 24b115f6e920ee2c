#pragma once
/// Limits log messages that a hostile or broken peer could cause at any rate.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace someip {

/// The first occurrences in an interval are logged; later ones are counted, and their number is logged with
/// the next one. Not thread-safe.
class RateLimit {
  public:
    explicit RateLimit(std::chrono::steady_clock::duration interval = std::chrono::minutes(1),
                       unsigned most = 1)
        : m_interval(interval), m_most(most) {}

    /// Counts one occurrence. If it should be logged, returns the number of occurrences since the last logged
    /// one.
    std::optional<std::uint64_t> note(std::chrono::steady_clock::time_point now) {
        if (!m_begin || now - *m_begin >= m_interval) {
            m_begin = now;
            m_logged = 0;
        }
        if (m_logged == m_most) {
            ++m_unlogged;
            return std::nullopt;
        }
        ++m_logged;
        const auto unlogged = m_unlogged;
        m_unlogged = 0;
        return unlogged;
    }

  private:
    const std::chrono::steady_clock::duration m_interval;
    const unsigned m_most;
    std::optional<std::chrono::steady_clock::time_point> m_begin;
    unsigned m_logged = 0;
    std::uint64_t m_unlogged = 0;
};

/// A limit for what happens a few times in orderly operation, too.
class ChangeLimit : public RateLimit {
  public:
    ChangeLimit() : RateLimit(std::chrono::minutes(1), 10) {}
};

/// The end of a limited message: nothing, or how many were not logged.
inline std::string more(std::uint64_t unlogged) {
    return unlogged == 0 ? std::string()
                         : " (" + std::to_string(unlogged) + " more since the last such message)";
}

}  // namespace someip
