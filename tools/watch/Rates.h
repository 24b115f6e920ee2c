#pragma once
/// How often samples arrive.
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "tools/watch/Watcher.h"

namespace vlmWatch {

/// Counts samples by event, instance and index, and describes them.
class Rates {
  public:
    using Clock = std::chrono::steady_clock;

    /// `watcher` says why an event has no samples.
    Rates(const std::vector<Selected>& selection, const Watcher& watcher)
        : m_selection(selection), m_watcher(watcher) {}

    void count(const Arrival& arrival);
    /// The rows since the last call, with a header, for a human: samples a second, in all, the time between
    /// two samples, and what is wrong with an event without any. At most `height` lines of at
    /// most `width` columns, unless they are 0.
    std::string table(Clock::time_point now, std::size_t height, std::size_t width);
    /// The same as JSON Lines.
    std::string json(Clock::time_point now, std::int64_t timeUs);

  private:
    struct Row {
        std::uint64_t total = 0;
        std::uint64_t recent = 0;    ///< since the last table
        std::int64_t lastUs = 0;     ///< of the last sample
        std::int64_t longestUs = 0;  ///< longest time between two samples
        std::string name;
    };
    struct Key {
        std::size_t selected;
        std::uint16_t instance;
        std::optional<std::int64_t> index;
        auto operator<=>(const Key&) const = default;
    };

    double secondsSince(Clock::time_point now);

    const std::vector<Selected>& m_selection;
    const Watcher& m_watcher;
    std::map<Key, Row> m_rows;
    Clock::time_point m_from = Clock::now();  ///< of the last call
};

}  // namespace vlmWatch
