#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "backend/store/Totals.h"
#include "backend/web/Readers.h"

namespace vlmBackend::web {

/// What the HTTP side counts. Any thread.
struct Metrics {
    std::array<std::atomic<std::uint64_t>, 600> answers{};  ///< by status
    std::atomic<std::int64_t> connections{0};               ///< now
    std::atomic<std::int64_t> updateReaders{0};             ///< readers of /api/updates now
};

/// In the OpenMetrics text format. Without values of the database if it does not answer.
std::string metricsText(const Metrics& metrics, const store::Totals& totals, Readers& readers,
                        const std::string& version);

}  // namespace vlmBackend::web
