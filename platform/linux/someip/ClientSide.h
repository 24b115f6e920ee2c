#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "someip/EventDispatcher.h"
#include "someip/EventReceiver.h"
#include "someip/KnownServices.h"
#include "someip/NetworkAccess.h"

namespace someip {

/// What this process requests of servers: services and events. The requests outlive the network. Guarded by
/// the runtime's lock, except where noted.
class ClientSide final : public SdClientObserver {
  public:
    explicit ClientSide(KnownServices& services) : m_services(services) {}

    /// Passes all requests to the network, which is open from now on; none: it is closed.
    void attach(NetworkAccess* network, Clock::time_point now);

    /// Starts the search and returns the instances that are offered now.
    std::vector<ServiceKey> find(const ServiceKey& service, Clock::time_point now);
    void add(const std::shared_ptr<EventReceiver>& receiver, Clock::time_point now);
    void remove(const std::shared_ptr<EventReceiver>& receiver);
    SubscriptionState state(const EventgroupKey& eventgroup) const;

    /// From whom each receiver takes events now.
    std::vector<EventDispatcher::Route> routes() const;
    /// Changes whenever the result of routes() does. Any thread, no lock.
    std::uint64_t routesVersion() const noexcept { return m_routesVersion.load(); }

  private:
    void serviceUp(const RemoteService& service) override;
    void serviceDown(const RemoteService& service, const char* reason) override;
    void offerUnusable(const ServiceKey& service, const Endpoint& peer, const char* reason) override;
    void subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) override;
    void multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) override;
    void logChange(const RemoteService& service, const char* what, const std::string& reason);

    KnownServices& m_services;
    NetworkAccess* m_network = nullptr;
    std::atomic<std::uint64_t> m_routesVersion{1};
    std::set<ServiceKey> m_searches;
    std::vector<std::shared_ptr<EventReceiver>> m_receivers;
    std::map<EventgroupKey, ChangeLimit> m_changes;  ///< only of receivers
    std::set<EventgroupKey> m_refused;               ///< refusals that were logged
    ChangeLimit m_otherChanges;                      ///< of services that this process does not know
    RateLimit m_otherUnusable;
};

}  // namespace someip
