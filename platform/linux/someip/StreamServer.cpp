#include "someip/StreamServer.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "log/PlatformLog.h"

namespace someip {

namespace {

constexpr std::chrono::seconds kAcceptPause{1};

bool isExhausted(int error) noexcept {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

void StreamServer::unwatch(const EventLoop& loop) const noexcept {
    loop.unwatch(m_listener->fd());
    for (const auto& [remote, client] : m_clients) {
        loop.unwatch(client.fd());
    }
}

void StreamServer::accept(const EventLoop& loop, SdServer& server, Clock::time_point now) {
    if (m_pausedUntil) {
        if (now < *m_pausedUntil) {
            return;
        }
        m_pausedUntil.reset();
        loop.watch(m_listener->fd());
    }
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
        if (const auto former = m_clients.find(socket->remote()); former != m_clients.end()) {
            server.clientLost(former->first);  // what has ended it was not read yet
            m_clients.erase(former);
        }
        loop.watch(socket->fd());
        m_clients.try_emplace(socket->remote(), socket);
        server.clientConnected(socket->remote());
        KYO_LOG(7, "Client " << toText(socket->remote()) << " has connected");
    }
    if (const int reason = errno; isExhausted(reason)) {
        // The client keeps waiting, so the descriptor stays readable: watched, it would wake the thread at
        // once.
        loop.unwatch(m_listener->fd());
        m_pausedUntil = now + kAcceptPause;
        if (const auto unlogged = m_exhausted.note(now)) {
            KYO_LOG(3, "A client at " << toText(endpoint()) << " has to wait: " << std::strerror(reason)
                                      << more(*unlogged));
        }
    }
}

void StreamServer::maintain(const EventLoop& loop, SdServer& server) {
    for (auto one = m_clients.begin(); one != m_clients.end();) {
        if (one->second.ended) {
            loop.unwatch(one->second.fd());
            server.clientLost(one->first);
            KYO_LOG(7, "Client " << toText(one->first) << " has disconnected");
            one = m_clients.erase(one);
        } else {
            ++one;
        }
    }
}

void StreamServer::end(std::span<const Endpoint> clients) noexcept {
    for (const Endpoint& client : clients) {
        if (const auto found = m_clients.find(client); found != m_clients.end()) {
            found->second.ended = true;
        }
    }
}

std::shared_ptr<Outlet> StreamServer::outlet(const Endpoint& client) const {
    const auto found = m_clients.find(client);
    return found == m_clients.end() ? nullptr : found->second.socket;
}

Inlet* StreamServer::inlet(int fd) noexcept {
    for (auto& [remote, client] : m_clients) {
        if (client.fd() == fd) {
            return &client;
        }
    }
    return nullptr;
}

bool StreamServer::Client::receive(const Take&) {
    std::array<std::uint8_t, 4096> unused{};
    const ssize_t size = socket->receive(unused);
    ended = ended || size == 0 || (size < 0 && errno != EAGAIN);
    return !ended;
}

}  // namespace someip
