#pragma once
/// TCP connections of 127.0.0.1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <string_view>

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

namespace vlmTest {

inline sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline bool isReadable(int handle) {
    pollfd wait{handle, POLLIN, 0};
    return ::poll(&wait, 1, 20000) > 0;
}

/// A connection that somebody has made; copies are the same one.
class Connection {
  public:
    explicit Connection(int handle) : m_handle(std::make_shared<Descriptor>(handle)) {}

    void send(std::string_view bytes) const {
        EXPECT_EQ(::send(*m_handle, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// The bytes of one read; empty after a time-out.
    std::string receive() const {
        char buffer[4096];
        const ssize_t got = isReadable(*m_handle) ? ::recv(*m_handle, buffer, sizeof buffer, 0) : 0;
        return {buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }
    void close() const { m_handle->close(); }

  private:
    std::shared_ptr<Descriptor> m_handle;
};

/// Listens on a port that was free.
class Listener {
  public:
    Listener() {
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), size);
        ::listen(m_socket, 4);
        ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
    }
    std::uint16_t port() const { return m_port; }
    /// The next connection; one without use after a time-out.
    Connection accept() const {
        return Connection(isReadable(m_socket) ? ::accept(m_socket, nullptr, nullptr) : -1);
    }

  private:
    const Descriptor m_socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::uint16_t m_port = 0;
};

/// A port that was free at the call.
inline std::uint16_t freePort() {
    return Listener().port();
}

inline bool somebodyListensAt(std::uint16_t port) {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace vlmTest
