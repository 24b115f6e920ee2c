#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "backend/store/Totals.h"
#include "backend/web/Readers.h"

namespace vlmBackend::web {

/// Counters of the HTTP side. Any thread.
struct Metrics {
    std::array<std::atomic<std::uint64_t>, 600> answers{};  ///< by status
    std::atomic<std::int64_t> connections{0};               ///< now
    std::atomic<std::int64_t> updateReaders{0};             ///< readers of /api/updates now
};

/// Returns the OpenMetrics text, without the database's values if the database does not answer.
std::string metricsText(const Metrics& metrics, const store::Totals& totals, Readers& readers,
                        const std::string& version);

}  // namespace vlmBackend::web
