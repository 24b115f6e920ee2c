#pragma once
/// Counters and gauges that the platform shows to an operator. Dotted names ("queue.ingress.dropped") become
/// nested objects in the snapshot. Everything registered lives until the process ends. Any thread.
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "kyo/Json.h"

namespace kyo {

/// Counts one kind of event. add() costs one relaxed atomic.
class Counter {
  public:
    void add(std::uint64_t n = 1) noexcept { m_value.fetch_add(n, std::memory_order_relaxed); }
    std::uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> m_value{0};
};

class Status {
  public:
    /// Returns the counter of this name and creates it on first use. Takes a lock: keep the reference.
    static Counter& counter(const std::string& name);
    /// Registers or replaces a value that each snapshot reads. `read` runs on the thread that takes the
    /// snapshot; it must not throw, and must be safe to call until the process ends.
    static void gauge(const std::string& name, std::function<Json::Value()> read);
    /// All counters by their dotted names.
    static std::map<std::string, std::uint64_t> counters();
    /// All counters and gauges as one nested object.
    static Json::Value snapshot();
};

}  // namespace kyo
