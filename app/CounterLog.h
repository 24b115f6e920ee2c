#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace vlmProd {

/// Tells in the log, at most once a minute, which counters have changed, so that a log alone shows what went
/// through and where something was lost. For one thread.
class CounterLog {
  public:
    using Clock = std::chrono::steady_clock;

    /// Logs one line at level 5 when a minute has passed since the last look and a counter has changed. What
    /// the log counts of itself does not bring a line about, as each line would bring about the next.
    void look(Clock::time_point now);

  private:
    Clock::time_point m_next{};
    std::map<std::string, std::uint64_t> m_told;
};

}  // namespace vlmProd
