#pragma once
/// The log file that the machine manifest names: written by a thread of its own, so that a slow disk holds
/// up nobody.
#include <cstdint>
#include <string>
#include <string_view>

namespace kyo {

class LogFile {
  public:
    /// Opens the file for appending and starts its thread. False, with a line on standard error, when the
    /// file cannot be opened. Once per process.
    static bool open(const std::string& path, std::uint64_t maxBytes) noexcept;
    /// Queues one line; drops and counts it (log.dropped.file) when the disk cannot keep up.
    static void write(std::string_view text, int level) noexcept;
};

}  // namespace kyo
