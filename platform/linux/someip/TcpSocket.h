#pragma once
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "someip/Endpoint.h"
#include "someip/Transport.h"

namespace someip {

/// One TCP connection, or the attempt to make one.
class TcpSocket final : public Outlet {
  public:
    /// Starts to connect, without waiting. Returns nullptr with the failed step and the reason in `error`.
    static std::shared_ptr<TcpSocket> connect(const Address& from, const Endpoint& to, std::string& error);
    ~TcpSocket() override;
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    int fd() const noexcept { return m_fd; }
    const Endpoint& remote() const noexcept { return m_remote; }
    /// The own end, once connected.
    Endpoint local() const noexcept;
    /// Returns 0 when the connection is established, EINPROGRESS while it is being made, and otherwise why it
    /// failed (errno).
    int state() const noexcept;

    /// Sends the whole message. Waits up to 200 ms for a peer that does not read; then, as after any failure,
    /// the connection ends, since the peer may have half a message. Puts a magic cookie before the
    /// first message, and before another one every ten seconds. Returns 0 or errno. Any thread.
    int send(std::span<const std::uint8_t> message) noexcept;
    /// `to` is the remote end.
    int send(const Endpoint& /*to*/, std::span<const std::uint8_t> message) noexcept override {
        return send(message);
    }
    std::size_t maxPayload() const noexcept override { return std::numeric_limits<std::size_t>::max(); }
    /// Receives what is available, without waiting. Returns the number of bytes, 0 when the peer has closed,
    /// and -1 with errno otherwise (EAGAIN: nothing is available). One thread.
    ssize_t receive(std::span<std::uint8_t> into) const noexcept;

  private:
    friend class TcpListener;
    TcpSocket(int fd, const Endpoint& remote) : m_fd(fd), m_remote(remote) {}
    int sendAll(std::span<const std::uint8_t> bytes, std::chrono::steady_clock::time_point deadline) noexcept;

    const int m_fd;
    const Endpoint m_remote;
    std::mutex m_sending;  ///< one message at a time; guards the next
    std::chrono::steady_clock::time_point m_cookieDue;
};

/// Accepts connections at an endpoint.
class TcpListener {
  public:
    /// Returns nullptr with the failed step and the reason in `error`.
    static std::unique_ptr<TcpListener> open(const Endpoint& endpoint, std::string& error);
    ~TcpListener();
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    int fd() const noexcept { return m_fd; }
    /// The bound endpoint, with the port that the system chose.
    const Endpoint& endpoint() const noexcept { return m_endpoint; }
    /// Returns nullptr, with errno, when no connection waits (EAGAIN) or none can be taken.
    std::shared_ptr<TcpSocket> accept() const;

  private:
    TcpListener(int fd, const Endpoint& endpoint) : m_fd(fd), m_endpoint(endpoint) {}

    const int m_fd;
    const Endpoint m_endpoint;
};

}  // namespace someip
