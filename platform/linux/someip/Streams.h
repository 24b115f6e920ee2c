#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <span>

#include "someip/EventLoop.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"
#include "someip/StreamReader.h"
#include "someip/TcpSocket.h"

namespace someip {

/// The TCP connections of a process: those to servers, one for each endpoint that subscriptions need, and
/// those of clients. Used by the middleware's thread alone, accept(), maintain() and client() with the
/// runtime's lock.
class Streams {
  public:
    /// `maxMessage`: bytes of one received message, with its header.
    Streams(Address own, const Network& network, std::size_t maxMessage,
            std::unique_ptr<const TcpListener> listener)
        : m_own(own), m_network(network), m_maxMessage(maxMessage), m_listener(std::move(listener)) {}

    /// Where clients connect.
    const Endpoint& endpoint() const noexcept { return m_listener->endpoint(); }
    void watch(const EventLoop& loop) const noexcept { loop.watch(m_listener->fd()); }
    void unwatch(const EventLoop& loop) const noexcept;

    /// Takes the clients that wait. Before their subscriptions are handled, which need the connection.
    void accept(const EventLoop& loop, SdServer& server, Clock::time_point now);
    /// Starts connections that are needed, ends others, retries failed ones, and reports the changes.
    void maintain(const EventLoop& loop, SdClient& client, SdServer& server, Clock::time_point now);
    Clock::time_point nextDeadline() const noexcept { return m_nextRetry; }
    /// Ends the connections with a peer that has rebooted, at the next maintain().
    void reset(Address peer) noexcept;
    /// The connection of the client at that endpoint; nullptr if there is none.
    std::shared_ptr<TcpSocket> client(const Endpoint& remote) const;

    /// True when accept() or maintain() has to handle the descriptor: a new client, or a connection being
    /// made.
    bool isChange(int fd) const noexcept;
    /// Passes each message that has arrived at the descriptor to `each(server, message)`; does nothing for
    /// other descriptors. Returns false when the connection has ended, which maintain() handles.
    template <typename Each>
    bool receive(int fd, Each&& each) {
        for (auto& [server, connection] : m_servers) {
            if (connection.socket != nullptr && connection.socket->fd() == fd) {
                if (fill(connection)) {
                    for (auto message = connection.reader->next(); !message.empty();
                         message = connection.reader->next()) {
                        each(server, message);
                    }
                }
                return check(connection);
            }
        }
        return discard(fd);
    }

    /// Connections of clients, at most; further ones are closed.
    static constexpr std::size_t kMaxClients = 256;

  private:
    /// A connection to a server, from the first attempt on.
    struct Connection {
        std::shared_ptr<TcpSocket> socket;  ///< none: waits for retryAt
        std::unique_ptr<StreamReader> reader;
        bool established = false;
        int failure = 0;  ///< errno, or kClosed; the connection has ended
        Clock::time_point since;
        Clock::time_point retryAt;
        unsigned failures = 0;  ///< in a row; determines the pause
        ChangeLimit changes;
    };
    struct Client {
        std::shared_ptr<TcpSocket> socket;
        bool ended = false;
    };

    static bool fill(Connection& connection);
    static bool check(Connection& connection);
    bool discard(int fd);
    void start(const Endpoint& server, Connection& connection, const EventLoop& loop, Clock::time_point now);
    void ended(const Endpoint& server, Connection& connection, const EventLoop& loop, SdClient& client,
               Clock::time_point now);

    const Address m_own;
    const Network m_network;  ///< clients from outside of it are not taken
    const std::size_t m_maxMessage;
    const std::unique_ptr<const TcpListener> m_listener;
    std::map<Endpoint, Connection> m_servers;
    std::map<Endpoint, Client> m_clients;
    Clock::time_point m_nextRetry = Clock::time_point::max();
    RateLimit m_tooMany;
};

}  // namespace someip
