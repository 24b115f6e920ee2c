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
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ac/com/types.h"
#include "machine/Manifest.h"
#include "someip/ClientSide.h"
#include "someip/EventDispatcher.h"
#include "someip/EventReceiver.h"
#include "someip/EventSender.h"
#include "someip/KnownServices.h"
#include "someip/NetworkAccess.h"
#include "someip/RateLimit.h"
#include "someip/ServerSide.h"
#include "someip/ServiceDiscovery.h"

namespace someip {

class Runtime final : private SdPeerObserver {
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

    void peerRebooted(const Endpoint& peer) override;

    // Called with the lock held.
    void openNetwork(Clock::time_point now);
    void closeNetwork(bool notifiesPeers);
    void wake() const;

    // Called by the thread.
    void work(Worker& worker);
    Clock::time_point step(Worker& worker, std::shared_ptr<NetworkAccess>& network);
    void handleDiscovery(const Worker& worker, Clock::time_point now);
    void receiveDiscovery(DatagramReader& reader, bool group, Clock::time_point now);
    void refreshRoutes(EventDispatcher& dispatcher, std::uint64_t& routesSeen);
    static void notify(const std::vector<ServerSide::Notice>& notices, const std::atomic<bool>* stop);

    std::atomic<bool> m_networkIsUp{false};
    std::atomic<bool> m_silent{false};

    mutable std::mutex m_guard;  ///< guards all members below
    std::shared_ptr<Worker> m_worker;
    std::vector<std::shared_ptr<Worker>> m_leftBehind;  ///< threads that were in a handler at stop()
    std::shared_ptr<NetworkAccess> m_network;
    machine::SomeIpSettings m_settings;
    bool m_offers = false;        ///< not started for clients only
    Clock::time_point m_retryAt;  ///< the network is not opened again before this
    std::string m_openFailure;    ///< the one logged last
    KnownServices m_services;
    ClientSide m_client{m_services};
    ServerSide m_server{m_services};
    ChangeLimit m_reboots;
    RateLimit m_sdMalformed;
    RateLimit m_sdForeign;
};

}  // namespace someip
