#pragma once
#include <atomic>
#include <cstdint>

namespace vlmBackend::store {

/// What this process has received since its start. Any thread reads it.
struct Totals {
    std::atomic<std::uint64_t> envelopes{0};  ///< including repeats
    std::atomic<std::uint64_t> repeated{0};
    std::atomic<std::uint64_t> samples{0};
    /// Kept aside: whole envelopes, and single samples of usable ones.
    std::atomic<std::uint64_t> unusable{0};
    std::atomic<std::uint64_t> refused{0};           ///< messages whose topic names no vehicle
    std::atomic<std::uint64_t> bytes{0};             ///< on the wire
    std::atomic<std::uint64_t> databaseFailures{0};  ///< batches that were not stored
};

}  // namespace vlmBackend::store
