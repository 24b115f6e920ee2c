#pragma once
#include <map>
#include <memory>
#include <set>

#include "someip/Datagrams.h"
#include "someip/EventLoop.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"

namespace someip {

/// The multicast groups that carry events, as acknowledgements name them. Used by the middleware's thread
/// alone, except for drop(); all but inlet() with the runtime's lock.
class MulticastGroups {
  public:
    /// `own` is the socket for events: the groups are joined at its address, with a buffer of its size.
    MulticastGroups(const std::shared_ptr<UdpSocket>& own, DatagramBatch& batch, const Network& network)
        : m_own(own), m_batch(batch), m_network(network) {}

    /// Joins the group at the next maintain(), for this eventgroup.
    void want(const EventgroupKey& eventgroup, const Endpoint& endpoint);
    /// Leaves groups that no other eventgroup uses, at the next maintain().
    void drop(const EventgroupKey& eventgroup);
    void maintain(const EventLoop& loop);
    void unwatch(const EventLoop& loop) const noexcept;
    /// Returns nullptr for a descriptor of something else.
    Inlet* inlet(int fd) noexcept;

    /// Further ones are not joined.
    static constexpr std::size_t kMost = 32;

  private:
    struct Group {
        std::set<EventgroupKey> users;
        bool tried = false;
        std::unique_ptr<DatagramInlet> inlet;  ///< none: could not be joined
    };
    void join(const Endpoint& endpoint, Group& group, const EventLoop& loop);

    const std::shared_ptr<UdpSocket> m_own;
    DatagramBatch& m_batch;
    const Network m_network;
    std::map<Endpoint, Group> m_groups;
    ChangeLimit m_changes;
};

}  // namespace someip
