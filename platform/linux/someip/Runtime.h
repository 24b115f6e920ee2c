#pragma once
/// The middleware of a process: sockets, one thread, and the requests of clients and servers.
///
/// The thread receives events and service discovery, runs the timers and calls all handlers. Requests
/// (searches, receivers, offers) do not depend on the network: they may be made before start(), survive
/// stop(), and take effect while the network is up. A process receives its own service discovery through its
/// own sockets, so a client finds a server of the same process like any other.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ac/com/types.h"
#include "machine/Manifest.h"
#include "someip/EventDispatcher.h"
#include "someip/EventReceiver.h"
#include "someip/EventSender.h"
#include "someip/NetworkAccess.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"

namespace someip {

class Runtime final : private SdObserver {
  public:
    Runtime() = default;
    /// As stop(), but waits for a running handler without a limit.
    ~Runtime() override;
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// The instance of this process. Never destroyed: proxies and skeletons may be destroyed at any time.
    static Runtime& process();

    /// Opens the network and starts the thread. A missing network is logged once and retried every second.
    /// Returns false when the runtime runs already or the system has no thread left.
    bool start(const machine::SomeIpSettings& settings, bool providesServices);
    /// Sends stop-subscribe and stop-offer, ends the thread, and waits up to `limit` for a running handler. A
    /// handler that takes longer keeps its thread, which ends when the handler returns. No other handler is
    /// called afterwards. Called from a handler, it does not wait at all.
    void stop(std::chrono::milliseconds limit = std::chrono::milliseconds(400));
    /// While silent, sends neither events nor service discovery.
    void setSilent(bool silent);

    /// True while the sockets are open. Any thread, no lock.
    bool networkIsUp() const noexcept { return m_networkIsUp.load(std::memory_order_relaxed); }
    /// Why the network is down; empty while it is up.
    std::string failure() const;
    /// The endpoint of this process for events; zero while the network is down.
    Endpoint eventEndpoint() const;

    // Clients. Any thread; does not block except where noted.

    /// Starts the search and returns the instances that are offered now. `instance` may be kAnyInstance.
    std::vector<ServiceKey> findService(const ac::com::ServiceInterface& service, std::uint16_t instance);
    /// All instances that peers offer now, searched or not.
    std::vector<RemoteService> offers() const;
    /// Requests an event. `handler` is called on the middleware's thread, outside any lock.
    std::shared_ptr<EventReceiver> receive(const ac::com::ServiceInterface& service, std::uint16_t instance,
                                           const ac::com::EventInterface& event,
                                           EventReceiver::Handler handler);
    /// Withdraws a request and waits as EventReceiver::close() does.
    void release(const std::shared_ptr<EventReceiver>& receiver);
    SubscriptionState subscriptionState(const EventgroupKey& eventgroup) const;

    // Servers. Any thread; does not block except where noted.

    std::shared_ptr<EventSender> addEvent(const std::shared_ptr<ServiceProvider>& provider,
                                          const ac::com::EventInterface& event);
    /// Waits for a running subscription handler.
    void removeEvent(const std::shared_ptr<ServiceProvider>& provider,
                     const std::shared_ptr<EventSender>& sender);
    /// Returns false when the middleware was started for clients only.
    bool offer(const std::shared_ptr<ServiceProvider>& provider);
    void stopOffer(const std::shared_ptr<ServiceProvider>& provider);

  private:
    struct Worker;
    /// A change for a subscription handler, which is called outside the lock.
    struct Notice {
        std::shared_ptr<EventSender> sender;
        Endpoint receiver;
        bool subscribed;
    };

    // SdObserver. Called with the lock held.
    void serviceUp(const RemoteService& service) override;
    void serviceDown(const RemoteService& service, const char* reason) override;
    void offerUnusable(const ServiceKey& service, const Endpoint& peer, const char* reason) override;
    void subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) override;
    void multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) override;
    void subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void peerRebooted(const Endpoint& peer) override;

    // Called with the lock held.
    void openNetwork(Clock::time_point now);
    void closeNetwork(bool sayGoodBye);
    void applyOffer(const ServiceProvider& provider, Clock::time_point now);
    Protocol protocolOf(const EventSender& sender) const noexcept;
    std::vector<EventDispatcher::Route> routes() const;
    std::string nameOf(const ServiceKey& service) const;
    void logChange(const RemoteService& service, const char* what, const std::string& reason);
    void subscriberChanged(const EventgroupKey& eventgroup, const Endpoint& receiver, bool subscribed);
    void wake() const;

    // Called by the thread.
    void work(Worker& worker);
    Clock::time_point step(Worker& worker, DatagramBatch& batch, std::shared_ptr<NetworkAccess>& network);
    void receiveDiscovery(NetworkAccess::Inlet& inlet, bool group, DatagramBatch& batch,
                          Clock::time_point now);
    void refreshRoutes(EventDispatcher& dispatcher, std::uint64_t& routesSeen);
    void receiveEvents(NetworkAccess& network, NetworkAccess::Inlet& inlet, DatagramBatch& batch,
                       EventDispatcher& dispatcher, std::uint64_t& routesSeen);
    /// Returns false when the connection has ended.
    bool receiveStream(NetworkAccess& network, int fd, EventDispatcher& dispatcher,
                       std::uint64_t& routesSeen);
    void joinGroups(NetworkAccess& network, const Worker& worker);
    static void countDropped(NetworkAccess::Inlet& inlet, const DatagramBatch& batch);
    static void notify(std::vector<Notice>& notices, const std::atomic<bool>* stop);

    std::atomic<bool> m_networkIsUp{false};
    std::atomic<bool> m_silent{false};
    /// Incremented whenever the result of routes() changes.
    std::atomic<std::uint64_t> m_routesVersion{1};

    mutable std::mutex m_guard;  ///< guards all members below
    std::shared_ptr<Worker> m_worker;
    std::vector<std::shared_ptr<Worker>> m_leftBehind;  ///< threads that were in a handler at stop()
    std::shared_ptr<NetworkAccess> m_network;
    machine::SomeIpSettings m_settings;
    bool m_providesServices = false;
    Clock::time_point m_retryAt;
    std::string m_openFailure;  ///< the one logged last
    std::set<ServiceKey> m_searches;
    std::vector<std::shared_ptr<EventReceiver>> m_receivers;
    std::vector<std::shared_ptr<ServiceProvider>> m_providers;
    /// A service that this process requests or offers.
    struct KnownService {
        std::string name;
        ChangeLimit changes;
        RateLimit unusable;
    };
    std::map<std::uint16_t, KnownService> m_known;
    std::map<EventgroupKey, ChangeLimit> m_subscriptionChanges;  ///< only of receivers
    std::map<EventgroupKey, ChangeLimit> m_subscriberChanges;    ///< only of what is offered
    std::set<EventgroupKey> m_refused;                           ///< refusals that were logged
    std::vector<Notice> m_notices;
    ChangeLimit m_otherChanges;  ///< of services that this process does not know
    RateLimit m_otherUnusable;
    ChangeLimit m_reboots;
    ChangeLimit m_groupChanges;
    RateLimit m_sdMalformed;
    RateLimit m_sdForeign;
};

}  // namespace someip
