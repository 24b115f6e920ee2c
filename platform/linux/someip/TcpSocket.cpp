#include "someip/TcpSocket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "someip/Message.h"
#include "someip/SystemAddress.h"

namespace someip {

namespace {

/// For a peer that does not read, with the system's send buffer full.
constexpr auto kSendLimit = std::chrono::milliseconds(200);
constexpr auto kCookiePeriod = std::chrono::seconds(10);

using Clock = std::chrono::steady_clock;

/// Finds a peer that is gone without a word: after 10 s of silence, one question a second, three times.
void watchPeer(int fd) noexcept {
    setOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    setOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
}

}  // namespace

std::shared_ptr<TcpSocket> TcpSocket::connect(const Address& from, const Endpoint& to, std::string& error) {
    const int fd = ::socket(familyOf(to.address), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return openFailed(fd, "cannot make a socket for", to, error);
    }
    watchPeer(fd);
    const SystemAddress own({from, 0});
    if (::bind(fd, own.get(), own.size()) != 0) {
        return openFailed(fd, "cannot bind the own address for", to, error);
    }
    const SystemAddress address(to);
    if (::connect(fd, address.get(), address.size()) != 0 && errno != EINPROGRESS) {
        return openFailed(fd, "cannot connect to", to, error);
    }
    return std::shared_ptr<TcpSocket>(new TcpSocket(fd, to));
}

TcpSocket::~TcpSocket() {
    ::close(m_fd);
}

Endpoint TcpSocket::local() const noexcept {
    return boundEndpoint(m_fd, Protocol::Tcp);
}

int TcpSocket::state() const noexcept {
    pollfd handle{m_fd, POLLOUT, 0};
    if (::poll(&handle, 1, 0) == 0) {
        return EINPROGRESS;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int TcpSocket::send(std::span<const std::uint8_t> message) noexcept {
    const std::lock_guard lock(m_sending);
    const auto now = Clock::now();
    int failure = 0;
    if (now >= m_cookieDue) {
        m_cookieDue = now + kCookiePeriod;
        failure = sendAll(kServerCookie, now + kSendLimit);
    }
    if (failure == 0) {
        failure = sendAll(message, now + kSendLimit);
    }
    if (failure != 0) {
        ::shutdown(m_fd, SHUT_RDWR);
    }
    return failure;
}

int TcpSocket::sendAll(std::span<const std::uint8_t> bytes, Clock::time_point deadline) noexcept {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd handle{m_fd, POLLOUT, 0};
            if (left <= 0 || ::poll(&handle, 1, static_cast<int>(left)) == 0) {
                return ETIMEDOUT;
            }
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

ssize_t TcpSocket::receive(std::span<std::uint8_t> into) const noexcept {
    for (;;) {
        const ssize_t received = ::recv(m_fd, into.data(), into.size(), MSG_DONTWAIT);
        if (received >= 0 || errno != EINTR) {
            return received;
        }
    }
}

std::unique_ptr<TcpListener> TcpListener::open(const Endpoint& endpoint, std::string& error) {
    const int fd = ::socket(familyOf(endpoint.address), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return openFailed(fd, "cannot make a socket for", endpoint, error);
    }
    setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);  // connections of the process before may still be closing
    const SystemAddress address(endpoint);
    if (::bind(fd, address.get(), address.size()) != 0) {
        return openFailed(fd, "cannot bind", endpoint, error);
    }
    if (::listen(fd, SOMAXCONN) != 0) {
        return openFailed(fd, "cannot listen at", endpoint, error);
    }
    return std::unique_ptr<TcpListener>(new TcpListener(fd, boundEndpoint(fd, Protocol::Tcp)));
}

TcpListener::~TcpListener() {
    ::close(m_fd);
}

std::shared_ptr<TcpSocket> TcpListener::accept() const {
    SystemAddress from;
    socklen_t size = from.size();
    const int fd = ::accept4(m_fd, from.get(), &size, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }
    watchPeer(fd);
    return std::shared_ptr<TcpSocket>(new TcpSocket(fd, from.endpoint(Protocol::Tcp)));
}

}  // namespace someip
