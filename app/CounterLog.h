#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace vlmProd {

/// Logs, at most once a minute, which counters have changed, so that the log alone shows throughput and
/// losses. For one thread.
class CounterLog {
  public:
    using Clock = std::chrono::steady_clock;

    /// Logs one line at level 5 if a minute has passed since the last call and a counter has changed. The
    /// log's own counters of written lines do not count as a change: each line would cause the next.
    void check(Clock::time_point now);

  private:
    Clock::time_point m_next{};
    std::map<std::string, std::uint64_t> m_logged;
};

}  // namespace vlmProd
