#pragma once
#include <map>
#include <memory>
#include <set>
#include <string>

#include "machine/Manifest.h"
#include "someip/EndpointLock.h"
#include "someip/ServiceDiscovery.h"
#include "someip/Streams.h"
#include "someip/UdpSocket.h"

namespace someip {

/// The sockets and the service discovery of a process while its network is open. Guarded by the runtime's
/// lock, except where noted.
class NetworkAccess {
  public:
    /// Returns nullptr, with `error`, when an address, a port or a group is not available.
    static std::shared_ptr<NetworkAccess> open(const machine::SomeIpSettings& settings, SdObserver& observer,
                                               std::string& error);

    /// A socket and the number of datagrams that the system has dropped there. Used by the thread alone.
    struct Inlet {
        std::shared_ptr<const UdpSocket> socket;
        std::uint32_t dropped = 0;
    };

    ServiceDiscovery& discovery() noexcept { return m_discovery; }
    Streams& streams() noexcept { return m_streams; }
    const Network& range() const noexcept { return m_range; }
    const Endpoint& eventEndpoint() const noexcept { return events.socket->endpoint(); }

    bool isDiscovery(int fd) const noexcept {
        return fd == discoveryUnicast.socket->fd() || fd == discoveryGroup.socket->fd();
    }
    /// The inlet of events with that descriptor; nullptr if none has. Used by the thread alone.
    Inlet* eventInlet(int fd) noexcept;

    /// Sends the outbox, or clears it when `silent`. Returns false, with `error`, when the network is gone.
    bool flush(bool silent, std::string& error);

    Inlet events;
    Inlet discoveryUnicast;
    Inlet discoveryGroup;
    /// Multicast groups that carry events, and the eventgroups that use them.
    std::map<Endpoint, std::set<EventgroupKey>> wantedGroups;
    /// The groups that were joined, and those that could not be joined (no socket). Used by the thread alone.
    std::map<Endpoint, Inlet> joinedGroups;

  private:
    NetworkAccess(const machine::SomeIpSettings& settings, const Network& range,
                  const Endpoint& eventEndpoint, std::unique_ptr<const TcpListener> listener,
                  SdObserver& observer);

    const Network m_range;
    Endpoint m_group;
    std::unique_ptr<const EndpointLock> m_lock;  ///< of the unicast discovery endpoint
    Streams m_streams;
    ServiceDiscovery m_discovery;
};

}  // namespace someip
