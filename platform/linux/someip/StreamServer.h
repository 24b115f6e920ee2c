#pragma once
#include <map>
#include <memory>
#include <optional>
#include <span>

#include "someip/EventLoop.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"
#include "someip/TcpSocket.h"
#include "someip/Transport.h"

namespace someip {

/// The TCP connections of clients, and the endpoint where they connect. Used by the middleware's thread
/// alone, accept(), maintain() and outlet() with the runtime's lock.
class StreamServer {
  public:
    /// Clients from outside `network` are not taken.
    StreamServer(const Network& network, std::unique_ptr<const TcpListener> listener)
        : m_network(network), m_listener(std::move(listener)) {}

    const Endpoint& endpoint() const noexcept { return m_listener->endpoint(); }
    void watch(const EventLoop& loop) const noexcept {
        if (!m_pausedUntil) {
            loop.watch(m_listener->fd());
        }
    }
    void unwatch(const EventLoop& loop) const noexcept;

    /// Takes the clients that wait. Before their subscriptions are handled, which need the connection.
    void accept(const EventLoop& loop, SdServer& server, Clock::time_point now);
    /// Removes the clients that are gone.
    void maintain(const EventLoop& loop, SdServer& server);
    Clock::time_point nextDeadline() const noexcept {
        return m_pausedUntil.value_or(Clock::time_point::max());
    }
    /// Ends these connections at the next maintain().
    void end(std::span<const Endpoint> clients) noexcept;
    /// The connection of the client at that endpoint; nullptr if there is none.
    std::shared_ptr<Outlet> outlet(const Endpoint& client) const;

    /// True for the endpoint's descriptor: accept() handles it.
    bool isNewClient(int fd) const noexcept { return fd == m_listener->fd(); }
    /// Returns nullptr for a descriptor of something else.
    Inlet* inlet(int fd) noexcept;

    /// Connections of clients, at most; further ones are closed.
    static constexpr std::size_t kMaxClients = 256;

  private:
    /// Nothing here takes requests: what a client sends only shows that it is still there.
    struct Client final : Inlet {
        explicit Client(std::shared_ptr<TcpSocket> connection) : socket(std::move(connection)) {}

        int fd() const noexcept override { return socket->fd(); }
        bool receive(const Take& take) override;

        const std::shared_ptr<TcpSocket> socket;
        bool ended = false;
    };

    const Network m_network;
    const std::unique_ptr<const TcpListener> m_listener;
    std::map<Endpoint, Client> m_clients;
    std::optional<Clock::time_point> m_pausedUntil;  ///< no descriptor was left for a client
    RateLimit m_tooMany;
    RateLimit m_exhausted;
};

}  // namespace someip
