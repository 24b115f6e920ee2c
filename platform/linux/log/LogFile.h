#pragma once
/// The log file that the machine manifest names. Its own thread writes it, so that nobody waits for a slow
/// disk.
#include <cstdint>
#include <string>
#include <string_view>

namespace kyo {

class LogFile {
  public:
    /// Opens the file for appending and starts its thread. Returns false, with a message on standard error,
    /// when the file cannot be opened. Once per process.
    static bool open(const std::string& path, std::uint64_t maxBytes) noexcept;
    /// Queues one line. Drops and counts it (log.dropped.file) when the queue is full.
    static void write(std::string_view text, int level) noexcept;
};

}  // namespace kyo
