#include "someip/NetworkAccess.h"

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

/// True for errors of sending to the group that mean a lost interface, not one lost packet.
bool networkIsGone(int error) noexcept {
    return error == ENETUNREACH || error == ENETDOWN || error == EADDRNOTAVAIL || error == ENODEV ||
           error == EINVAL;
}

}  // namespace

NetworkAccess::NetworkAccess(const machine::SomeIpSettings& settings, const Network& range,
                             const Endpoint& eventEndpoint, std::unique_ptr<const TcpListener> listener,
                             SdObserver& observer)
    : m_range(range),
      m_streams(eventEndpoint.address, range, settings.maxSampleBytes + kHeaderSize, std::move(listener)),
      m_discovery(timesOf(settings.discovery), eventEndpoint, m_streams.endpoint(), range, observer,
                  std::random_device()()) {}

std::shared_ptr<NetworkAccess> NetworkAccess::open(const machine::SomeIpSettings& settings,
                                                   SdObserver& observer, std::string& error) {
    Address address = 0;
    Network range;
    Endpoint group;
    if (!parseAddress(settings.address, address)) {
        error = "someip.address: \"" + settings.address + "\" is no IPv4 address";
        return nullptr;
    }
    if (!parseNetwork(settings.network, range)) {
        error = "someip.network: \"" + settings.network + "\" is no IPv4 network such as \"192.168.1.0/24\"";
        return nullptr;
    }
    if (!parseAddress(settings.discovery.group, group.address)) {
        error = "someip.discovery.group: \"" + settings.discovery.group + "\" is no IPv4 address";
        return nullptr;
    }
    group.port = settings.discovery.port;
    const bool multicast = isMulticast(group.address);

    auto lock = EndpointLock::take({address, settings.discovery.port}, error);
    if (lock == nullptr) {
        return nullptr;
    }
    UdpSocket::Options options;
    options.receiveBufferBytes = settings.receiveBufferBytes;
    const std::shared_ptr<const UdpSocket> events =
        UdpSocket::open({address, settings.eventPort}, options, error);
    if (events == nullptr) {
        return nullptr;
    }
    options = {};
    options.receiveBufferBytes = kDiscoveryBufferBytes;
    options.broadcast = !multicast;
    options.interfaceAddress = multicast ? address : 0;
    // Other stacks on this machine may bind the port at all addresses.
    options.shared = true;
    const std::shared_ptr<const UdpSocket> unicast =
        UdpSocket::open({address, settings.discovery.port}, options, error);
    if (unicast == nullptr) {
        return nullptr;
    }
    options.join = multicast;
    const std::shared_ptr<const UdpSocket> groupSocket = UdpSocket::open(group, options, error);
    if (groupSocket == nullptr) {
        return nullptr;
    }

    auto listener = TcpListener::open({address, settings.eventPort, Protocol::Tcp}, error);
    if (listener == nullptr) {
        return nullptr;
    }
    std::shared_ptr<NetworkAccess> access(
        new NetworkAccess(settings, range, events->endpoint(), std::move(listener), observer));
    access->m_lock = std::move(lock);
    access->events.socket = events;
    access->discoveryUnicast.socket = unicast;
    access->discoveryGroup.socket = groupSocket;
    access->m_group = group;
    KYO_LOG(5, "SOME/IP is up: events at " << toText(events->endpoint()) << ", receive buffer "
                                           << events->receiveBufferBytes() << " bytes, service discovery at "
                                           << toText(unicast->endpoint()) << " and " << toText(group));
    if (!range.contains(address)) {
        KYO_LOG(3, "The own address " << toText(address) << " is not part of the network " << settings.network
                                      << ": services of this process cannot find each other");
    }
    return access;
}

NetworkAccess::Inlet* NetworkAccess::eventInlet(int fd) noexcept {
    if (fd == events.socket->fd()) {
        return &events;
    }
    for (auto& [group, inlet] : joinedGroups) {
        if (inlet.socket != nullptr && inlet.socket->fd() == fd) {
            return &inlet;
        }
    }
    return nullptr;
}

bool NetworkAccess::flush(bool silent, std::string& error) {
    bool up = true;
    for (const auto& datagram : m_discovery.outbox().take()) {
        if (silent) {
            continue;
        }
        const Endpoint& to = datagram.to ? *datagram.to : m_group;
        const int failure = discoveryUnicast.socket->sendTo(to, datagram.bytes, false);
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
