#pragma once
#include <memory>
#include <string>

#include "machine/Manifest.h"
#include "someip/Datagrams.h"
#include "someip/EndpointLock.h"
#include "someip/MulticastGroups.h"
#include "someip/ServiceDiscovery.h"
#include "someip/StreamClient.h"
#include "someip/StreamServer.h"

namespace someip {

/// The sockets and the service discovery of a process while its network is open. Guarded by the runtime's
/// lock, except for what the thread alone uses: batch, readers and inlets.
class NetworkAccess {
  public:
    /// Returns nullptr, with `error`, when an address, a port or a group is not available. `offers`: clients
    /// may connect.
    static std::shared_ptr<NetworkAccess> open(const machine::SomeIpSettings& settings, bool offers,
                                               const SdObservers& observers, std::string& error);

    ServiceDiscovery& discovery() noexcept { return m_discovery; }
    MulticastGroups& groups() noexcept { return m_groups; }
    const Network& range() const noexcept { return m_range; }
    const Endpoint& eventEndpoint() const noexcept { return m_events.socket()->endpoint(); }
    /// Returns the way to a subscriber; nullptr for a client that is not connected.
    std::shared_ptr<Outlet> outlet(const Endpoint& receiver) const;

    void watch(const EventLoop& loop) const noexcept;
    void unwatch(const EventLoop& loop) const noexcept;
    /// Accepts clients that have connected. Call it before discovery is read: their subscriptions need the
    /// connection.
    void accept(const EventLoop& loop, Clock::time_point now);
    /// Opens and closes connections, joins and leaves groups, as the subscriptions need them now.
    void maintain(const EventLoop& loop, Clock::time_point now);
    Clock::time_point nextDeadline() const;
    /// Ends the connections with a peer that has rebooted, at the next maintain().
    void reset(const Endpoint& peer);

    /// True for a descriptor that needs accept(), discovery or maintain().
    bool isControl(int fd) const noexcept;
    /// Returns the inlet of events at that descriptor; nullptr if there is none.
    Inlet* inlet(int fd) noexcept;
    DatagramReader& unicastDiscovery() noexcept { return m_unicast; }
    DatagramReader& groupDiscovery() noexcept { return m_group; }

    /// Sends the outbox, or clears it when `silent`. Returns false, with `error`, when the network is gone.
    bool flush(bool silent, std::string& error);

  private:
    struct Sockets;
    NetworkAccess(const machine::SomeIpSettings& settings, Sockets&& sockets, const SdObservers& observers);

    const Network m_range;
    const std::unique_ptr<const EndpointLock> m_lock;  ///< of the unicast discovery endpoint
    DatagramBatch m_batch;
    DatagramInlet m_events;
    DatagramReader m_unicast;
    DatagramReader m_group;
    MulticastGroups m_groups;
    StreamClient m_servers;
    std::unique_ptr<StreamServer> m_clients;  ///< none in a process that offers nothing
    ServiceDiscovery m_discovery;
};

}  // namespace someip
