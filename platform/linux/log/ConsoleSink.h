#pragma once
/// Writes lines to standard output and never waits for the reader. Used by the log thread alone.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kyo/Status.h"
#include "log/LineBuffer.h"
#include "log/LineText.h"

namespace ara::log {

class ConsoleSink {
  public:
    /// Writes to `descriptor`, which the caller owns. Does not change its flags: other processes may share
    /// the terminal or pipe and expect it to block.
    explicit ConsoleSink(int descriptor, std::size_t maxBytes = 1u << 20);
    ~ConsoleSink();
    ConsoleSink(const ConsoleSink&) = delete;
    ConsoleSink& operator=(const ConsoleSink&) = delete;

    /// Formats the line into the buffer. Drops and counts it when the buffer is full.
    void put(const kyo::LogLine& line, std::int64_t wallNs);
    /// Writes as much as is possible without waiting.
    void pump();

    bool pending() const { return m_done < m_buffer.size(); }
    /// The descriptor to poll for POLLOUT while lines are pending; -1 when the console is gone.
    int descriptor() const { return m_kind == Kind::Gone ? -1 : m_out; }

  private:
    enum class Kind { Gone, Own, File, Socket, Shared };

    void giveUp();
    std::ptrdiff_t write(std::string_view text);

    const std::size_t m_maxBytes;
    kyo::Counter& m_dropped;
    kyo::ClockText m_clock;
    int m_out;
    Kind m_kind = Kind::Gone;
    std::string m_buffer;
    std::size_t m_done = 0;   ///< written bytes of m_buffer
    std::size_t m_lines = 0;  ///< lines in m_buffer, whole or in part
};

}  // namespace ara::log
