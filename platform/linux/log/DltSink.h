#pragma once
/// Sends messages to the DLT daemon through libdlt, as fast as the daemon reads them. Used by the log thread
/// alone.
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

/// The length of the longest prefix of `text` that fits into `limit` bytes and does not end inside a UTF-8
/// character.
std::size_t pieceLength(std::string_view text, std::size_t limit);

class DltSink {
  public:
    using Clock = std::chrono::steady_clock;

    /// Starts libdlt. Does not wait for a daemon.
    DltSink(const std::string& appId, const std::string& description);
    ~DltSink() = default;  // libdlt shuts itself down at exit
    DltSink(const DltSink&) = delete;
    DltSink& operator=(const DltSink&) = delete;

    /// Queues the message. Drops and counts it when the queue is full.
    void put(const kyo::LogLine& line);
    /// Sends as much as the daemon takes without waiting, at most some hundred messages, and none once
    /// `givingUp` is set.
    void pump(const std::atomic<bool>& givingUp);

    bool pending() const { return !m_waiting.empty(); }
    /// True when the last pump() stopped because the pipe was full: poll descriptor() for POLLOUT before the
    /// next.
    bool blocked() const { return m_blocked; }
    /// The daemon's pipe, or -1 while there is no daemon.
    int descriptor() const { return m_pipe; }
    bool connected() const { return m_pipe >= 0; }

    /// Checks for the daemon, at intervals. Returns true when it has appeared or gone since the last call.
    bool probe(Clock::time_point now);
    /// Limits the time of libdlt's own exit handler; to zero without a daemon.
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

    int m_pipe = -1;  ///< open, to see its free space and the end of the daemon
    Clock::time_point m_nextProbe{};
    Clock::time_point m_levelOursUntil{};
    bool m_blocked = false;
    bool m_libraryFull = false;  ///< no daemon, and the library's buffer for a later one is full
    kyo::LineBuffer m_waiting;
    std::size_t m_frontDone = 0;  ///< sent bytes of the first waiting message
};

}  // namespace ara::log
