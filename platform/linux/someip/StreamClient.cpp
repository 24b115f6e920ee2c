#include "someip/StreamClient.h"

#include <algorithm>
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
/// For a server that does not answer. The system asks after 1 s and 3 s again, and then for two minutes.
constexpr auto kConnectLimit = 4s;
constexpr int kClosed = -1;  ///< by the peer
constexpr int kBroken = -2;  ///< the stream is no sequence of messages
constexpr int kReset = -3;   ///< the peer has rebooted, or does not know the connection any more

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

void StreamClient::maintain(const EventLoop& loop, SdClient& client, Clock::time_point now) {
    for (const Endpoint& suspect : client.takeSuspects()) {
        if (const auto found = m_servers.find(suspect);
            found != m_servers.end() && found->second.established) {
            found->second.failure = kReset;
        }
    }
    const auto needed = client.neededConnections();
    dropUnneeded(needed, loop, client);
    m_next = Clock::time_point::max();
    for (const Endpoint& endpoint : needed) {
        Connection& connection = m_servers.try_emplace(endpoint, endpoint, m_maxMessage).first->second;
        if (connection.socket != nullptr && !connection.established && connection.failure == 0) {
            finish(connection, loop, client, now);
        }
        if (connection.failure != 0) {
            end(connection, loop, client, now);
        }
        if (connection.socket == nullptr && connection.retryAt <= now) {
            start(connection, loop, now);
        }
        if (connection.socket == nullptr) {
            m_next = std::min(m_next, connection.retryAt);
        } else if (!connection.established) {
            m_next = std::min(m_next, connection.since + kConnectLimit);
        }
    }
}

void StreamClient::dropUnneeded(const std::set<Endpoint>& needed, const EventLoop& loop, SdClient& client) {
    for (auto one = m_servers.begin(); one != m_servers.end();) {
        if (!needed.contains(one->first)) {
            if (one->second.socket != nullptr) {
                loop.unwatch(one->second.fd());
            }
            client.disconnected(one->first);
            one = m_servers.erase(one);
        } else {
            ++one;
        }
    }
}

void StreamClient::start(Connection& connection, const EventLoop& loop, Clock::time_point now) const {
    std::string error;
    connection.socket = TcpSocket::connect(m_own, connection.server, error);
    if (connection.socket == nullptr) {
        connection.retryAt = now + kPauseMost;
        if (const auto unlogged = connection.changes.note(now)) {
            KYO_LOG(3, "Events over TCP cannot be received, trying again: " << error << more(*unlogged));
        }
        return;
    }
    connection.reader = std::make_unique<StreamReader>(connection.maxMessageBytes);
    connection.established = false;
    connection.since = now;
    loop.watch(connection.fd(), EventLoop::Until::Writable);
}

void StreamClient::finish(Connection& connection, const EventLoop& loop, SdClient& client,
                          Clock::time_point now) {
    const int state = connection.socket->state();
    if (state == EINPROGRESS) {
        connection.failure = now >= connection.since + kConnectLimit ? ETIMEDOUT : 0;
        return;
    }
    connection.failure = state;
    if (state != 0) {
        return;
    }
    connection.established = true;
    connection.since = now;
    loop.watch(connection.fd());
    counters().tcpConnected.add();
    if (const auto unlogged = connection.changes.note(now)) {
        KYO_LOG(5, "Connected to " << toText(connection.server) << more(*unlogged));
    }
    client.connected(connection.server, connection.socket->local(), now);
}

void StreamClient::end(Connection& connection, const EventLoop& loop, SdClient& client,
                       Clock::time_point now) {
    loop.unwatch(connection.fd());
    connection.socket.reset();
    if (connection.established) {
        counters().tcpLost.add();
        client.disconnected(connection.server);
        connection.failures = now - connection.since >= kStable ? 0 : connection.failures;
    }
    connection.retryAt =
        now + std::min<Clock::duration>(kPauseFirst * (1u << std::min(connection.failures, 10u)), kPauseMost);
    ++connection.failures;
    if (const auto unlogged = connection.changes.note(now)) {
        KYO_LOG(3, (connection.established ? "The connection to " : "No connection to ")
                       << toText(connection.server) << (connection.established ? " has ended: " : ": ")
                       << reasonOf(connection.failure) << more(*unlogged));
    }
    connection.failure = 0;
    connection.established = false;
}

void StreamClient::reset(const Address& peer) noexcept {
    for (auto& [server, connection] : m_servers) {
        if (server.address == peer && connection.established) {
            connection.failure = kReset;
        }
    }
}

void StreamClient::unwatch(const EventLoop& loop) const noexcept {
    for (const auto& [server, connection] : m_servers) {
        if (connection.socket != nullptr) {
            loop.unwatch(connection.fd());
        }
    }
}

bool StreamClient::isUnfinished(int fd) const noexcept {
    return std::ranges::any_of(m_servers, [&](const auto& one) {
        return one.second.socket != nullptr && one.second.fd() == fd && !one.second.established;
    });
}

Inlet* StreamClient::inlet(int fd) noexcept {
    for (auto& [server, connection] : m_servers) {
        if (connection.socket != nullptr && connection.fd() == fd) {
            return &connection;
        }
    }
    return nullptr;
}

bool StreamClient::Connection::receive(const Take& take) {
    if (!established || failure != 0) {
        return failure == 0;
    }
    const ssize_t size = socket->receive(reader->space());
    if (size > 0) {
        reader->filled(static_cast<std::size_t>(size));
        for (auto message = reader->next(); !message.empty(); message = reader->next()) {
            take(server, message);
        }
    } else if (size == 0) {
        failure = kClosed;
    } else if (errno != EAGAIN) {
        failure = errno;
    }
    if (failure == 0 && reader->broken()) {
        failure = kBroken;
        counters().tcpBroken.add();
    }
    return failure == 0;
}

}  // namespace someip
