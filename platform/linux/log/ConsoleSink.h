#pragma once
/// Lines to standard output, without ever waiting for its reader. Used by the log's thread alone.
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
    /// Writes to that descriptor, which stays the caller's and whose flags are not touched: a terminal or
    /// pipe may be shared with processes that expect it to block.
    explicit ConsoleSink(int descriptor, std::size_t maxBytes = 1u << 20);
    ~ConsoleSink();
    ConsoleSink(const ConsoleSink&) = delete;
    ConsoleSink& operator=(const ConsoleSink&) = delete;

    /// Formats the line into the buffer; drops and counts it when the reader is too far behind.
    void put(const kyo::LogLine& line, std::int64_t wallNs);
    /// Writes what the reader takes now.
    void pump();

    bool pending() const { return m_done < m_buffer.size(); }
    /// What to poll for POLLOUT while something is pending; -1 when the console is gone.
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
    std::size_t m_done = 0;   ///< bytes of m_buffer that are written
    std::size_t m_lines = 0;  ///< lines that m_buffer holds whole or in part
};

}  // namespace ara::log
