#include "log/ConsoleSink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace ara::log {

namespace {

std::string_view levelName(std::uint8_t level) {
    constexpr std::array<std::string_view, 7> kNames{"OFF    ", "FATAL  ", "ERROR  ", "WARN   ",
                                                     "INFO   ", "DEBUG  ", "VERBOSE"};
    return kNames[std::min<std::size_t>(level, kNames.size() - 1)];
}

}  // namespace

ConsoleSink::ConsoleSink(int descriptor, std::size_t maxBytes)
    : m_maxBytes(maxBytes), m_dropped(kyo::Status::counter("log.dropped.console")), m_out(descriptor) {
    struct stat info {};
    if (::fstat(descriptor, &info) != 0) {
        return;  // standard output was closed at start
    }
    if (S_ISREG(info.st_mode)) {
        m_kind = Kind::File;
    } else if (S_ISSOCK(info.st_mode)) {
        m_kind = Kind::Socket;
    } else {
        // Opens the same pipe or terminal again, so that O_NONBLOCK affects nobody else.
        const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
        const int own = ::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        m_kind = own < 0 ? Kind::Shared : Kind::Own;
        m_out = own < 0 ? descriptor : own;
    }
}

ConsoleSink::~ConsoleSink() {
    if (m_kind == Kind::Own) {
        ::close(m_out);
    }
}

void ConsoleSink::put(const kyo::LogLine& line, std::int64_t wallNs) {
    const bool full = pending() && m_buffer.size() - m_done + line.text.size() > m_maxBytes;
    if (m_kind == Kind::Gone || full) {
        m_dropped.add();
        return;
    }
    kyo::appendLine(m_buffer, m_clock.text(wallNs), levelName(line.level), line.text);
    ++m_lines;
}

std::ptrdiff_t ConsoleSink::write(std::string_view text) {
    switch (m_kind) {
        case Kind::Own:
        case Kind::File:
            return ::write(m_out, text.data(), text.size());
        case Kind::Socket:
            return ::send(m_out, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        case Kind::Shared: {
            // The descriptor blocks: write only when poll() reports space, which is at least PIPE_BUF bytes.
            pollfd room{m_out, POLLOUT, 0};
            if (::poll(&room, 1, 0) == 0) {
                errno = EAGAIN;
                return -1;
            }
            return ::write(m_out, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        }
        case Kind::Gone:
            break;
    }
    errno = EBADF;
    return -1;
}

void ConsoleSink::pump() {
    while (pending()) {
        const auto put = write(std::string_view(m_buffer).substr(m_done));
        if (put > 0) {
            m_done += static_cast<std::size_t>(put);
            continue;
        }
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        giveUp();  // the reader is gone, or the disk is full
        return;
    }
    if (!pending()) {
        m_buffer.clear();
        m_done = 0;
        m_lines = 0;
    } else if (m_done > m_maxBytes / 2) {
        m_buffer.erase(0, m_done);
        m_done = 0;
        m_lines = static_cast<std::size_t>(std::count(m_buffer.begin(), m_buffer.end(), '\n'));
    }
}

void ConsoleSink::giveUp() {
    m_dropped.add(m_lines);
    m_buffer.clear();
    m_done = 0;
    m_lines = 0;
    if (m_kind != Kind::File) {  // a full disk may have space again
        if (m_kind == Kind::Own) {
            ::close(m_out);
        }
        m_kind = Kind::Gone;
    }
}

}  // namespace ara::log
