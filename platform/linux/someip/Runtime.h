#pragma once
/// The middleware of a process: sockets, one thread, and what clients and servers want of them.
///
/// The thread receives events and service discovery, keeps the times, and calls all handlers. What is wanted
/// (searches, receivers, offers) is kept apart from the network: it may be asked for before start() and
/// survives stop(); it takes effect while the network is up. A process hears its own service discovery
/// through its own sockets, so a client finds a server of the same process as it finds any other.
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
    /// Ends as stop() does, but waits for a handler as long as it takes.
    ~Runtime() override;
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// The one of this process. Never destroyed: proxies and skeletons may outlive everything.
    static Runtime& process();

    /// Opens the network and starts the thread. A network that is not there yet is logged once and tried
    /// again every second. False when it runs already or no thread could be made.
    bool start(const machine::SomeIpSettings& settings, bool providesServices);
    /// Says good-bye on the wire, ends the thread, and waits for a handler that is under way, but not longer
    /// than `limit`: then the thread is left behind with its handler, and ends when that returns. Afterwards
    /// no handler is called. From a handler it does not wait at all.
    void stop(std::chrono::milliseconds limit = std::chrono::milliseconds(400));
    /// Ends as a killed process does: nothing is said. With start() behind it, a peer that reboots.
    void abandon();
    /// While silent nothing is sent, neither events nor service discovery.
    void setSilent(bool silent);

    /// True while the sockets are open. Any thread, no lock.
    bool networkIsUp() const noexcept { return m_networkIsUp.load(std::memory_order_relaxed); }
    /// Where this process receives and sends events; zero while the network is not up.
    Endpoint eventEndpoint() const;

    // Clients. Any thread; nothing blocks but where it says so.

    /// Starts the search, and answers what is offered now. `instance` may be kAnyInstance.
    std::vector<ServiceKey> findService(const ac::com::ServiceInterface& service, std::uint16_t instance);
    /// Registers a wish for an event. `handler` is called on the middleware's thread, outside any lock.
    std::shared_ptr<EventReceiver> receive(const ac::com::ServiceInterface& service, std::uint16_t instance,
                                           const ac::com::EventInterface& event,
                                           EventReceiver::Handler handler);
    /// Gives a wish up, and waits as EventReceiver::close() does.
    void release(const std::shared_ptr<EventReceiver>& receiver);
    SubscriptionState subscriptionState(const EventgroupKey& eventgroup) const;

    // Servers. Any thread, nothing blocks.

    std::shared_ptr<EventSender> addEvent(const std::shared_ptr<ServiceProvider>& provider,
                                          const ac::com::EventInterface& event);
    /// Waits for a subscription handler that is under way.
    void removeEvent(const std::shared_ptr<ServiceProvider>& provider,
                     const std::shared_ptr<EventSender>& sender);
    /// False when the middleware was started for clients only.
    bool offer(const std::shared_ptr<ServiceProvider>& provider);
    void stopOffer(const std::shared_ptr<ServiceProvider>& provider);

  private:
    struct Worker;
    /// News for a subscription handler, told outside the lock.
    struct Notice {
        std::shared_ptr<EventSender> sender;
        Endpoint receiver;
        bool subscribed;
    };

    // SdObserver; called with the lock held.
    void serviceUp(const RemoteService& service) override;
    void serviceDown(const RemoteService& service, const char* reason) override;
    void subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) override;
    void multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) override;
    bool admitSubscriber(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void peerRebooted(const Endpoint& peer) override;

    // With the lock held.
    void openNetwork(Clock::time_point now);
    void closeNetwork(bool sayGoodBye);
    void applyOffer(const ServiceProvider& provider, Clock::time_point now);
    std::vector<EventDispatcher::Route> routes() const;
    std::string nameOf(const ServiceKey& service) const;
    void subscriberChanged(const EventgroupKey& eventgroup, const Endpoint& receiver, bool subscribed);
    void wake() const;

    void end(bool sayGoodBye, std::chrono::milliseconds limit);
    // The thread.
    void work(Worker& worker);
    Clock::time_point step(Worker& worker, DatagramBatch& batch, std::shared_ptr<NetworkAccess>& network);
    void receiveDiscovery(NetworkAccess::Inlet& inlet, bool group, DatagramBatch& batch,
                          Clock::time_point now);
    void refreshRoutes(EventDispatcher& dispatcher, std::uint64_t& routesSeen);
    void receiveEvents(NetworkAccess& network, NetworkAccess::Inlet& inlet, DatagramBatch& batch,
                       EventDispatcher& dispatcher, std::uint64_t& routesSeen);
    static void joinGroups(NetworkAccess& network, const Worker& worker);
    static void countDropped(NetworkAccess::Inlet& inlet, const DatagramBatch& batch);
    static void tell(std::vector<Notice>& notices, const std::atomic<bool>* stop);

    std::atomic<bool> m_networkIsUp{false};
    std::atomic<bool> m_silent{false};
    /// Grows whenever routes() would answer something else.
    std::atomic<std::uint64_t> m_routesVersion{1};

    mutable std::mutex m_guard;  ///< guards all that follows
    std::shared_ptr<Worker> m_worker;
    std::vector<std::shared_ptr<Worker>> m_leftBehind;  ///< threads that sat in a handler at the end
    std::shared_ptr<NetworkAccess> m_network;
    machine::SomeIpSettings m_settings;
    bool m_providesServices = false;
    Clock::time_point m_retryAt;
    std::string m_openFailure;  ///< the one told last
    std::set<ServiceKey> m_searches;
    std::vector<std::shared_ptr<EventReceiver>> m_receivers;
    std::vector<std::shared_ptr<ServiceProvider>> m_providers;
    std::map<std::uint16_t, std::string> m_names;
    std::set<EventgroupKey> m_refused;  ///< refusals that were told
    std::vector<Notice> m_notices;
    RateLimit m_sdMalformed;
    RateLimit m_sdForeign;
};

}  // namespace someip
