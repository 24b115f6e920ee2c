#include "log/DltSink.h"

#include <dlt/dlt_common.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#ifdef __SANITIZE_THREAD__
/// At exit libdlt cancels its threads inside a condition's wait. The thread sanitizer does not see that
/// library's code and reports a mutex that is locked twice. The suppression hides nothing in our code.
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libdlt.so\n";
}
#endif

namespace ara::log {

namespace {

constexpr std::size_t kMaxWaiting = 65'536;
constexpr std::size_t kMaxWaitingBytes = 16u << 20;
constexpr std::size_t kMessagesAtATime = 512;
constexpr int kPipeBytes = 1 << 20;
constexpr auto kProbePeriod = std::chrono::milliseconds(500);
/// About a second after it starts, the daemon sets each context to its own default level. Within this time we
/// restore our level; a later change is somebody's intention.
constexpr auto kLevelSettles = std::chrono::seconds(5);
/// Without a daemon, libdlt's own flush at exit would wait 10 s in vain.
constexpr std::uint32_t kExitFlushMs = 200;

/// DLT's time stamps count 0.1 ms.
constexpr std::int64_t kNsPerTick = 100'000;

/// Bytes of a string argument besides its text: type (4), length (2) and a final zero.
constexpr std::size_t kStringArgumentBytes = 7;

std::size_t messageBufferBytes() {
    const char* const text = std::getenv("DLT_LOG_MSG_BUF_LEN");
    const long asked = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    return asked > 64 && asked < DLT_USER_BUF_MAX_SIZE ? static_cast<std::size_t>(asked)
                                                       : DLT_USER_BUF_MAX_SIZE;
}

std::string daemonPipe() {
    const char* const folder = std::getenv("DLT_PIPE_DIR");
    return std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/dlt";
}

}  // namespace

std::size_t pieceLength(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text.size();
    }
    std::size_t end = limit;
    while (end > 0 && limit - end < 4 && (static_cast<unsigned char>(text[end]) & 0xC0u) == 0x80u) {
        --end;
    }
    // Four continuation bytes in a row are not UTF-8: cut anywhere.
    return end == 0 || limit - end >= 4 ? limit : end;
}

DltSink::DltSink(const std::string& appId, const std::string& description)
    : m_dropped(kyo::Status::counter("log.dropped.dlt")),
      m_unread(kyo::Status::counter("log.dlt.noDaemon")),
      m_sent(kyo::Status::counter("log.dlt.messages")),
      m_pipePath(daemonPipe()),
      m_pieceBytes(messageBufferBytes() - kStringArgumentBytes) {
    if (std::getenv("DLT_LOG_LEVEL") == nullptr && std::getenv("DLT_LOG_MODE") == nullptr) {
        // The library writes each problem to standard error. We count and log what matters; a user who wants
        // the library's own messages sets one of its variables.
        ::setenv("DLT_LOG_MODE", std::to_string(static_cast<int>(DLT_LOG_DROPPED)).c_str(), 0);
        ::dlt_init();
        ::unsetenv("DLT_LOG_MODE");
    } else {
        ::dlt_init();
    }
    ::dlt_set_resend_timeout_atexit(kExitFlushMs);
    ::dlt_register_app(appId.c_str(), description.c_str());
    registerContext();
    probe(Clock::now());
}

void DltSink::registerContext() {
    // An explicit level, since the daemon's default hides debug messages.
    ::dlt_register_context_ll_ts(&m_context, "VLM", "Default context", DLT_LOG_VERBOSE, DLT_TRACE_STATUS_OFF);
}

bool DltSink::probe(Clock::time_point now) {
    if (m_pipe >= 0) {
        pollfd state{m_pipe, POLLOUT, 0};
        if (::poll(&state, 1, 0) <= 0 || (state.revents & (POLLERR | POLLHUP)) == 0) {
            return false;
        }
        ::close(m_pipe);  // the daemon has closed its end
        m_pipe = -1;
        m_nextProbe = now + kProbePeriod;
        return true;
    }
    if (now < m_nextProbe) {
        return false;
    }
    m_nextProbe = now + kProbePeriod;
    m_pipe = ::open(m_pipePath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_pipe < 0) {
        return false;
    }
    // A larger pipe holds a burst while the daemon sleeps. The system may refuse it, which does no harm.
    ::fcntl(m_pipe, F_SETPIPE_SZ, kPipeBytes);
    m_blocked = false;
    m_libraryFull = false;
    m_levelOursUntil = now + kLevelSettles;
    return true;
}

void DltSink::prepareExit() {
    ::dlt_set_resend_timeout_atexit(connected() ? kExitFlushMs : 0);
}

void DltSink::put(const kyo::LogLine& line) {
    if (m_waiting.lines() >= kMaxWaiting ||
        m_waiting.bytes() + kyo::LineBuffer::weight(line.text.size()) > kMaxWaitingBytes) {
        m_dropped.add();
        return;
    }
    try {
        m_waiting.append(line);
    } catch (const std::bad_alloc&) {
        m_dropped.add();
    }
}

DltSink::Sent DltSink::send(std::string_view piece, const kyo::LogLine& line) {
    DltContextData data{};
    const auto start = [&] {
        return ::dlt_user_log_write_start(&m_context, &data, static_cast<DltLogLevelType>(line.level)) ==
               DLT_RETURN_TRUE;
    };
    if (!start()) {
        if (Clock::now() > m_levelOursUntil) {
            return Sent::Hidden;  // somebody has lowered the context's level
        }
        registerContext();
        if (!start()) {
            return Sent::Hidden;
        }
    }
    data.use_timestamp = DLT_USER_TIMESTAMP;
    data.user_timestamp = static_cast<std::uint32_t>(line.uptimeNs / kNsPerTick);
    ::dlt_user_log_write_sized_utf8_string(&data, piece.data(), static_cast<std::uint16_t>(piece.size()));
    switch (::dlt_user_log_write_finish(&data)) {
        case DLT_RETURN_BUFFER_FULL:
            return Sent::NoRoom;
        case DLT_RETURN_OK:
            return Sent::Taken;
        default:
            // The library has buffered the message: it is accepted, but send no more for now.
            m_blocked = connected();
            return Sent::Taken;
    }
}

void DltSink::pump(const std::atomic<bool>& givingUp) {
    m_blocked = false;
    for (std::size_t count = 0;
         !m_waiting.empty() && count < kMessagesAtATime && !m_blocked && !givingUp.load(); ++count) {
        const kyo::LogLine line = m_waiting.front();
        const std::string_view rest = line.text.substr(m_frontDone);
        const std::size_t length = pieceLength(rest, m_pieceBytes);
        const bool offered = connected() || !m_libraryFull;
        const Sent sent = offered ? send(rest.substr(0, length), line) : Sent::NoRoom;
        if (sent == Sent::Taken) {
            m_sent.add();
            m_frontDone += length;
        } else if (sent == Sent::Hidden) {
            m_frontDone = line.text.size();
        } else if (connected()) {
            m_blocked = true;  // kept; retried when there is space
            return;
        } else {
            m_libraryFull = true;
            m_unread.add();
            m_frontDone = line.text.size();
        }
        if (m_frontDone >= line.text.size()) {
            m_frontDone = 0;
            m_waiting.pop();
        }
    }
}

}  // namespace ara::log
