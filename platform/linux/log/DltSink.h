#pragma once
/// Messages to the DLT daemon through libdlt, at the pace that the daemon takes them. Used by the log's
/// thread alone.
#include <dlt/dlt.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kyo/Status.h"
#include "log/LineBuffer.h"

namespace ara::log {

/// The longest beginning of `text` that fits into `limit` bytes and does not end inside a UTF-8 character.
std::size_t pieceLength(std::string_view text, std::size_t limit);

class DltSink {
  public:
    using Clock = std::chrono::steady_clock;

    /// Starts libdlt. Takes no longer without a daemon.
    DltSink(const std::string& appId, const std::string& description);
    ~DltSink() = default;  // libdlt ends itself at exit
    DltSink(const DltSink&) = delete;
    DltSink& operator=(const DltSink&) = delete;

    /// Queues the message; drops and counts it when the daemon is too far behind.
    void put(const kyo::LogLine& line);
    /// Hands over what the daemon takes now, but no more than some hundred messages at a time, and none once
    /// `givingUp` is set.
    void pump(const std::atomic<bool>& givingUp);

    bool pending() const { return !m_waiting.empty(); }
    /// True when the last pump() stopped for want of room: poll descriptor() for POLLOUT before the next.
    bool blocked() const { return m_blocked; }
    /// The daemon's pipe, or -1 while there is no daemon.
    int descriptor() const { return m_pipe; }
    bool connected() const { return m_pipe >= 0; }

    /// Looks for the daemon now and then. True when it has come or gone since the last call.
    bool probe(Clock::time_point now);
    /// Tells libdlt how long its own exit handler may take: nothing where nobody reads.
    void prepareExit();

  private:
    enum class Sent { Taken, NoRoom, Hidden };

    void registerContext();
    Sent send(std::string_view piece, const kyo::LogLine& line);

    kyo::Counter& m_dropped;
    kyo::Counter& m_unread;
    kyo::Counter& m_sent;
    const std::string m_pipePath;
    const std::size_t m_pieceBytes;
    DltContext m_context{};

    int m_pipe = -1;  ///< held open to see room in it, and the daemon's end
    Clock::time_point m_nextProbe{};
    Clock::time_point m_levelOursUntil{};
    bool m_blocked = false;
    bool m_libraryFull = false;  ///< nobody reads, and the library keeps no more for one who comes later
    kyo::LineBuffer m_waiting;
    std::size_t m_frontDone = 0;  ///< bytes of the first waiting message that are handed over
};

}  // namespace ara::log
