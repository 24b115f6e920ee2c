#pragma once
/// Counters and gauges that the platform shows to an operator. Names are dotted ("queue.ingress.dropped")
/// and become nested objects in the snapshot. Everything registered lives until the process ends.
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "kyo/Json.h"

namespace kyo {

/// One event count. Adding costs a relaxed atomic.
class Counter {
  public:
    void add(std::uint64_t n = 1) noexcept { m_value.fetch_add(n, std::memory_order_relaxed); }
    std::uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> m_value{0};
};

class Status {
  public:
    /// The counter of that name, made on first use. Takes a lock: keep the reference, do not ask per event.
    static Counter& counter(const std::string& name);
    /// Registers or replaces a value that is read at each snapshot. `read` is called on the thread that
    /// takes the snapshot, must not throw, and must be safe at any time until the process ends.
    static void gauge(const std::string& name, std::function<Json::Value()> read);
    /// All counters by their dotted names.
    static std::map<std::string, std::uint64_t> counters();
    /// All counters and gauges as one nested object.
    static Json::Value snapshot();
};

}  // namespace kyo
