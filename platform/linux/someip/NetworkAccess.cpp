#include "someip/NetworkAccess.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "log/PlatformLog.h"
#include "someip/Counters.h"

namespace someip {

namespace {

/// For service discovery; holds some hundred messages.
constexpr std::uint32_t kDiscoveryBufferBytes = 256u << 10;

SdTimes timesOf(const machine::DiscoverySettings& settings) {
    SdTimes times;
    times.initialDelayMin = std::chrono::milliseconds(settings.initialDelayMinMs);
    times.initialDelayMax = std::chrono::milliseconds(settings.initialDelayMaxMs);
    times.repetitionBase = std::chrono::milliseconds(settings.repetitionBaseMs);
    times.repetitions = settings.repetitions;
    times.cyclicOffer = std::chrono::milliseconds(settings.cyclicOfferMs);
    times.ttlSeconds = std::max(1u, std::min(settings.ttlSeconds, kTtlUntilReboot));
    return times;
}

/// Returns false, with the key in `error`. An interface that is not there may come later.
bool readAddresses(const machine::SomeIpSettings& settings, Address& own, Network& range, Address& group,
                   std::string& error) {
    const auto wrong = [&](const char* key, const std::string& text, const char* reason) {
        error = std::string("someip.") + key + ": \"" + text + "\" " + reason;
        return false;
    };
    if (!parseAddress(settings.address, own)) {
        return wrong("address", settings.address,
                     settings.address.find('%') == std::string::npos ? "is no IPv4 or IPv6 address"
                                                                     : "names no interface of this machine");
    }
    if (!parseNetwork(settings.network, range) || range.base.isIpv6() != own.isIpv6()) {
        return wrong("network", settings.network,
                     own.isIpv6() ? "is no IPv6 network such as \"fd00::/64\""
                                  : "is no IPv4 network such as \"192.168.1.0/24\"");
    }
    range.base = range.base.on(own.interface());
    if (!parseAddress(settings.discovery.group, group) || group.isIpv6() != own.isIpv6() ||
        (group.isIpv6() && !group.isMulticast())) {
        return wrong("discovery.group", settings.discovery.group,
                     own.isIpv6() ? "is no IPv6 multicast group" : "is no IPv4 address");
    }
    return true;
}

/// True for errors of sending to the group that mean a lost interface, not one lost packet.
bool networkIsGone(int error) noexcept {
    return error == ENETUNREACH || error == ENETDOWN || error == EADDRNOTAVAIL || error == ENODEV ||
           error == EINVAL;
}

}  // namespace

/// What open() has opened.
struct NetworkAccess::Sockets {
    Network range;
    std::unique_ptr<const EndpointLock> lock;
    std::shared_ptr<UdpSocket> events;
    std::shared_ptr<UdpSocket> unicast;
    std::shared_ptr<UdpSocket> group;
    std::unique_ptr<const TcpListener> listener;  ///< none: offers nothing
};

NetworkAccess::NetworkAccess(const machine::SomeIpSettings& settings, Sockets&& sockets,
                             const SdObservers& observers)
    : m_range(sockets.range),
      m_lock(std::move(sockets.lock)),
      m_events(sockets.events, m_batch, m_range),
      m_unicast(std::move(sockets.unicast), m_batch),
      m_group(std::move(sockets.group), m_batch),
      m_groups(sockets.events, m_batch, m_range),
      m_servers(eventEndpoint().address, settings.maxSampleBytes + kHeaderSize),
      m_clients(sockets.listener == nullptr
                    ? nullptr
                    : std::make_unique<StreamServer>(m_range, std::move(sockets.listener))),
      m_discovery(timesOf(settings.discovery), eventEndpoint(),
                  m_clients == nullptr ? Endpoint{} : m_clients->endpoint(), m_range, observers,
                  std::random_device()()) {}

std::shared_ptr<NetworkAccess> NetworkAccess::open(const machine::SomeIpSettings& settings, bool offers,
                                                   const SdObservers& observers, std::string& error) {
    Sockets sockets;
    Address address;
    Endpoint group{{}, settings.discovery.port};
    if (!readAddresses(settings, address, sockets.range, group.address, error)) {
        return nullptr;
    }
    const bool multicast = group.address.isMulticast();

    sockets.lock = EndpointLock::take({address, settings.discovery.port}, error);
    if (sockets.lock == nullptr) {
        return nullptr;
    }
    UdpSocket::Options options;
    options.receiveBufferBytes = settings.receiveBufferBytes;
    sockets.events = UdpSocket::open({address, settings.eventPort}, options, error);
    if (sockets.events == nullptr) {
        return nullptr;
    }
    options = {};
    options.receiveBufferBytes = kDiscoveryBufferBytes;
    options.broadcast = !multicast;
    options.interfaceAddress = multicast ? address : Address();
    // Other stacks on this machine may bind the port at all addresses.
    options.shared = true;
    sockets.unicast = UdpSocket::open({address, settings.discovery.port}, options, error);
    if (sockets.unicast == nullptr) {
        return nullptr;
    }
    options.join = multicast;
    sockets.group = UdpSocket::open(group, options, error);
    if (sockets.group == nullptr) {
        return nullptr;
    }
    if (offers) {
        sockets.listener = TcpListener::open({address, settings.eventPort, Protocol::Tcp}, error);
        if (sockets.listener == nullptr) {
            return nullptr;
        }
    }
    KYO_LOG(5, "SOME/IP is up: events at "
                   << toText(sockets.events->endpoint())
                   << (sockets.listener ? ", over TCP at " + toText(sockets.listener->endpoint()) : "")
                   << ", receive buffer " << sockets.events->receiveBufferBytes()
                   << " bytes, service discovery at " << toText(sockets.unicast->endpoint()) << " and "
                   << toText(group));
    if (!sockets.range.contains(address)) {
        KYO_LOG(3, "The own address " << toText(address) << " is not part of the network " << settings.network
                                      << ": services of this process cannot find each other");
    }
    return std::shared_ptr<NetworkAccess>(new NetworkAccess(settings, std::move(sockets), observers));
}

std::shared_ptr<Outlet> NetworkAccess::outlet(const Endpoint& receiver) const {
    if (receiver.protocol == Protocol::Udp) {
        return m_events.socket();
    }
    return m_clients == nullptr ? nullptr : m_clients->outlet(receiver);
}

void NetworkAccess::watch(const EventLoop& loop) const noexcept {
    for (const int fd : {m_events.fd(), m_unicast.fd(), m_group.fd()}) {
        loop.watch(fd);
    }
    if (m_clients != nullptr) {
        m_clients->watch(loop);
    }
}

void NetworkAccess::unwatch(const EventLoop& loop) const noexcept {
    for (const int fd : {m_events.fd(), m_unicast.fd(), m_group.fd()}) {
        loop.unwatch(fd);
    }
    m_groups.unwatch(loop);
    m_servers.unwatch(loop);
    if (m_clients != nullptr) {
        m_clients->unwatch(loop);
    }
}

void NetworkAccess::accept(const EventLoop& loop, Clock::time_point now) {
    if (m_clients != nullptr) {
        m_clients->accept(loop, m_discovery.server(), now);
    }
}

void NetworkAccess::maintain(const EventLoop& loop, Clock::time_point now) {
    if (m_clients != nullptr) {
        m_clients->maintain(loop, m_discovery.server());
    }
    m_servers.maintain(loop, m_discovery.client(), now);
    m_groups.maintain(loop);
}

Clock::time_point NetworkAccess::nextDeadline() const {
    const auto next = std::min(m_discovery.nextDeadline(), m_servers.nextDeadline());
    return m_clients == nullptr ? next : std::min(next, m_clients->nextDeadline());
}

void NetworkAccess::reset(const Endpoint& peer) {
    m_servers.reset(peer.address);
    if (m_clients != nullptr) {
        // One without a subscription may be the first of the peer's new life.
        m_clients->end(m_discovery.server().receiversOf(peer));
    }
}

bool NetworkAccess::isControl(int fd) const noexcept {
    return fd == m_unicast.fd() || fd == m_group.fd() || m_servers.isUnfinished(fd) ||
           (m_clients != nullptr && m_clients->isNewClient(fd));
}

Inlet* NetworkAccess::inlet(int fd) noexcept {
    if (fd == m_events.fd()) {
        return &m_events;
    }
    if (Inlet* const group = m_groups.inlet(fd)) {
        return group;
    }
    if (Inlet* const server = m_servers.inlet(fd)) {
        return server;
    }
    return m_clients == nullptr ? nullptr : m_clients->inlet(fd);
}

bool NetworkAccess::flush(bool silent, std::string& error) {
    bool up = true;
    for (const auto& datagram : m_discovery.outbox().take()) {
        if (silent) {
            continue;
        }
        const Endpoint& to = datagram.to ? *datagram.to : m_group.socket()->endpoint();
        const int failure = m_unicast.socket()->sendTo(to, datagram.bytes, false);
        if (failure == 0) {
            counters().sdSent.add();
            continue;
        }
        counters().sendFailed.add();
        KYO_LOG(7, "Service discovery cannot send to " << toText(to) << ": " << std::strerror(failure));
        if (!datagram.to && networkIsGone(failure)) {
            error = "cannot send to " + toText(to) + ": " + std::strerror(failure);
            up = false;
        }
    }
    return up;
}

}  // namespace someip
