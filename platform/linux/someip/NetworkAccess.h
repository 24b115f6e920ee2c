#pragma once
#include <map>
#include <memory>
#include <set>
#include <string>

#include "machine/Manifest.h"
#include "someip/ServiceDiscovery.h"
#include "someip/UdpSocket.h"

namespace someip {

/// The sockets of a process and its service discovery, from opening the network to closing it. Guarded by
/// the runtime's lock, except where it says otherwise.
class NetworkAccess {
  public:
    /// None with `error` when an address, a port or a group is not to be had.
    static std::shared_ptr<NetworkAccess> open(const machine::SomeIpSettings& settings, SdObserver& observer,
                                               std::string& error);

    /// A socket and how many datagrams the system has dropped there so far (the thread's own).
    struct Inlet {
        std::shared_ptr<const UdpSocket> socket;
        std::uint32_t dropped = 0;
    };

    ServiceDiscovery& discovery() noexcept { return m_discovery; }
    const Network& range() const noexcept { return m_range; }
    const Endpoint& eventEndpoint() const noexcept { return events.socket->endpoint(); }

    /// Sends what waits in the outbox; forgets it when `silent`. False with `error` when the network is gone.
    bool flush(bool silent, std::string& error);

    Inlet events;
    Inlet discoveryUnicast;
    Inlet discoveryGroup;
    /// Multicast groups that carry events, and the eventgroups that use them.
    std::map<Endpoint, std::set<EventgroupKey>> wantedGroups;
    /// The thread's own: the groups that it has joined, and those that could not be joined (no socket).
    std::map<Endpoint, Inlet> joinedGroups;

  private:
    NetworkAccess(const machine::SomeIpSettings& settings, const Network& range,
                  const Endpoint& eventEndpoint, SdObserver& observer);

    const Network m_range;
    Endpoint m_group;
    ServiceDiscovery m_discovery;
};

}  // namespace someip
