#include "someip/Streams.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "log/PlatformLog.h"
#include "someip/Counters.h"

namespace someip {

namespace {

using namespace std::chrono_literals;

constexpr auto kPauseFirst = 500ms;  ///< after a connection has ended; doubled each time
constexpr auto kPauseMost = 8s;
constexpr auto kStable = 10s;  ///< a connection that lasted so long was no failure
constexpr int kClosed = -1;    ///< by the peer
constexpr int kBroken = -2;    ///< the stream is no sequence of messages
constexpr int kReset = -3;     ///< the peer has rebooted, or does not know the connection any more

std::string reasonOf(int failure) {
    switch (failure) {
        case kClosed:
            return "the peer has closed it";
        case kBroken:
            return "what came is no sequence of messages";
        case kReset:
            return "the peer may not know it any more";
        default:
            return std::strerror(failure);
    }
}

}  // namespace

void Streams::unwatch(const EventLoop& loop) const noexcept {
    loop.unwatch(m_listener->fd());
    for (const auto& [server, connection] : m_servers) {
        if (connection.socket != nullptr) {
            loop.unwatch(connection.socket->fd());
        }
    }
    for (const auto& [remote, client] : m_clients) {
        loop.unwatch(client.socket->fd());
    }
}

void Streams::accept(const EventLoop& loop, SdServer& server, Clock::time_point now) {
    while (const auto socket = m_listener->accept()) {
        if (!m_network.contains(socket->remote().address)) {
            continue;
        }
        if (m_clients.size() >= kMaxClients) {
            if (const auto unlogged = m_tooMany.note(now)) {
                KYO_LOG(3, "The connection of " << toText(socket->remote()) << " is closed: there are "
                                                << kMaxClients << " others" << more(*unlogged));
            }
            continue;
        }
        loop.watch(socket->fd());
        m_clients[socket->remote()] = {socket, false};
        server.clientConnected(socket->remote());
        KYO_LOG(7, "Client " << toText(socket->remote()) << " has connected");
    }
}

void Streams::maintain(const EventLoop& loop, SdClient& client, SdServer& server, Clock::time_point now) {
    for (auto one = m_clients.begin(); one != m_clients.end();) {
        if (one->second.ended) {
            loop.unwatch(one->second.socket->fd());
            server.clientLost(one->first);
            KYO_LOG(7, "Client " << toText(one->first) << " has disconnected");
            one = m_clients.erase(one);
        } else {
            ++one;
        }
    }
    for (const Endpoint& suspect : client.takeSuspects()) {
        if (const auto found = m_servers.find(suspect);
            found != m_servers.end() && found->second.established) {
            found->second.failure = kReset;
        }
    }
    const auto needed = client.neededConnections();
    for (auto one = m_servers.begin(); one != m_servers.end();) {
        if (!needed.contains(one->first)) {
            if (one->second.socket != nullptr) {
                loop.unwatch(one->second.socket->fd());
            }
            client.disconnected(one->first);
            one = m_servers.erase(one);
        } else {
            ++one;
        }
    }
    m_nextRetry = Clock::time_point::max();
    for (const Endpoint& endpoint : needed) {
        Connection& connection = m_servers[endpoint];
        if (connection.socket != nullptr && !connection.established && connection.failure == 0) {
            const int state = connection.socket->state();
            if (state == 0) {
                connection.established = true;
                connection.since = now;
                loop.watch(connection.socket->fd());
                counters().tcpConnected.add();
                if (const auto unlogged = connection.changes.note(now)) {
                    KYO_LOG(5, "Connected to " << toText(endpoint) << more(*unlogged));
                }
                client.connected(endpoint, connection.socket->local(), now);
            } else if (state != EINPROGRESS) {
                connection.failure = state;
            }
        }
        if (connection.failure != 0) {
            ended(endpoint, connection, loop, client, now);
        }
        if (connection.socket == nullptr && connection.retryAt <= now) {
            start(endpoint, connection, loop, now);
        }
        if (connection.socket == nullptr) {
            m_nextRetry = std::min(m_nextRetry, connection.retryAt);
        }
    }
}

void Streams::start(const Endpoint& server, Connection& connection, const EventLoop& loop,
                    Clock::time_point now) {
    std::string error;
    connection.socket = TcpSocket::connect(m_own, server, error);
    if (connection.socket == nullptr) {
        connection.retryAt = now + kPauseMost;
        if (const auto unlogged = connection.changes.note(now)) {
            KYO_LOG(3, "Events over TCP cannot be received, trying again: " << error << more(*unlogged));
        }
        return;
    }
    connection.reader = std::make_unique<StreamReader>(m_maxMessage);
    connection.established = false;
    loop.watch(connection.socket->fd(), EventLoop::Until::Writable);
}

void Streams::ended(const Endpoint& server, Connection& connection, const EventLoop& loop, SdClient& client,
                    Clock::time_point now) {
    loop.unwatch(connection.socket->fd());
    connection.socket.reset();
    if (connection.established) {
        counters().tcpLost.add();
        client.disconnected(server);
        connection.failures = now - connection.since >= kStable ? 0 : connection.failures;
    }
    connection.retryAt =
        now + std::min<Clock::duration>(kPauseFirst * (1u << std::min(connection.failures, 10u)), kPauseMost);
    ++connection.failures;
    if (const auto unlogged = connection.changes.note(now)) {
        KYO_LOG(3, (connection.established ? "The connection to " : "No connection to ")
                       << toText(server) << (connection.established ? " has ended: " : ": ")
                       << reasonOf(connection.failure) << more(*unlogged));
    }
    connection.failure = 0;
    connection.established = false;
}

void Streams::reset(Address peer) noexcept {
    for (auto& [server, connection] : m_servers) {
        if (server.address == peer && connection.established) {
            connection.failure = kReset;
        }
    }
    for (auto& [remote, client] : m_clients) {
        client.ended = client.ended || remote.address == peer;
    }
}

std::shared_ptr<TcpSocket> Streams::client(const Endpoint& remote) const {
    const auto found = m_clients.find(remote);
    return found == m_clients.end() ? nullptr : found->second.socket;
}

bool Streams::isChange(int fd) const noexcept {
    return fd == m_listener->fd() || std::ranges::any_of(m_servers, [&](const auto& one) {
               return one.second.socket != nullptr && one.second.socket->fd() == fd &&
                      !one.second.established;
           });
}

/// Receives once, so that one busy server does not hold up the others. Returns true when something has come.
bool Streams::fill(Connection& connection) {
    if (!connection.established || connection.failure != 0) {
        return false;
    }
    const ssize_t size = connection.socket->receive(connection.reader->space());
    if (size > 0) {
        connection.reader->filled(static_cast<std::size_t>(size));
    } else if (size == 0) {
        connection.failure = kClosed;
    } else if (errno != EAGAIN) {
        connection.failure = errno;
    }
    return size > 0;
}

bool Streams::check(Connection& connection) {
    if (connection.failure == 0 && connection.reader->broken()) {
        connection.failure = kBroken;
        counters().tcpBroken.add();
    }
    return connection.failure == 0;
}

/// Reads what a client sends: it shows when the client is gone. Nothing here takes requests.
bool Streams::discard(int fd) {
    for (auto& [remote, client] : m_clients) {
        if (client.socket->fd() == fd) {
            std::array<std::uint8_t, 4096> unused{};
            const ssize_t size = client.socket->receive(unused);
            client.ended = client.ended || size == 0 || (size < 0 && errno != EAGAIN);
            return !client.ended;
        }
    }
    return true;
}

}  // namespace someip
