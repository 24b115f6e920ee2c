#pragma once
#include <array>
#include <atomic>
#include <cstdint>

namespace vlmBackend::web {

/// What the HTTP side counts. Any thread.
struct Metrics {
    std::array<std::atomic<std::uint64_t>, 600> answers{};  ///< by status
    std::atomic<std::int64_t> connections{0};               ///< now
    std::atomic<std::int64_t> updateReaders{0};             ///< readers of /api/updates now
};

}  // namespace vlmBackend::web
