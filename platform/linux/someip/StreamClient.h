#pragma once
#include <cstdint>
#include <map>
#include <memory>

#include "someip/EventLoop.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"
#include "someip/StreamReader.h"
#include "someip/TcpSocket.h"
#include "someip/Transport.h"

namespace someip {

/// The TCP connections to servers, one for each endpoint that subscriptions need. Used by the middleware's
/// thread alone, maintain() with the runtime's lock.
class StreamClient {
  public:
    /// `maxMessage`: bytes of one received message, with its header.
    StreamClient(const Address& own, std::size_t maxMessage) : m_own(own), m_maxMessage(maxMessage) {}

    /// Starts connections that are needed, ends others, retries failed ones, and reports the changes.
    void maintain(const EventLoop& loop, SdClient& client, Clock::time_point now);
    Clock::time_point nextDeadline() const noexcept { return m_next; }
    /// Ends the connections to a peer that has rebooted, at the next maintain().
    void reset(const Address& peer) noexcept;
    void unwatch(const EventLoop& loop) const noexcept;

    /// True for a connection being made: maintain() handles the descriptor.
    bool isUnfinished(int fd) const noexcept;
    /// Returns nullptr for a descriptor of something else. What ends a connection is handled by maintain().
    Inlet* inlet(int fd) noexcept;

  private:
    /// A connection to a server, from the first attempt on.
    struct Connection final : Inlet {
        Connection(const Endpoint& to, std::size_t maxMessage) : server(to), maxMessageBytes(maxMessage) {}

        int fd() const noexcept override { return socket == nullptr ? -1 : socket->fd(); }
        /// Receives once, so that one busy server does not hold up the others.
        bool receive(const Take& take) override;

        const Endpoint server;
        const std::size_t maxMessageBytes;
        std::shared_ptr<TcpSocket> socket;  ///< none: waits for retryAt
        std::unique_ptr<StreamReader> reader;
        bool established = false;
        int failure = 0;          ///< errno, or kClosed; the connection has ended
        Clock::time_point since;  ///< begun, or established
        Clock::time_point retryAt;
        unsigned failures = 0;  ///< in a row; determines the pause
        ChangeLimit changes;
    };

    void dropUnneeded(const std::set<Endpoint>& needed, const EventLoop& loop, SdClient& client);
    void start(Connection& connection, const EventLoop& loop, Clock::time_point now) const;
    static void finish(Connection& connection, const EventLoop& loop, SdClient& client,
                       Clock::time_point now);
    static void end(Connection& connection, const EventLoop& loop, SdClient& client, Clock::time_point now);

    const Address m_own;
    const std::size_t m_maxMessage;
    std::map<Endpoint, Connection> m_servers;
    Clock::time_point m_next = Clock::time_point::max();
};

}  // namespace someip
