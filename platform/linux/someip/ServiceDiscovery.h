#pragma once
/// Service discovery without a thread, a clock or a socket: requests, offers, messages and the time go in,
/// messages and changes come out. The caller holds one lock around every call.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "someip/Endpoint.h"
#include "someip/SdMessage.h"
#include "someip/SdSessions.h"
#include "someip/Segmentation.h"

namespace someip {

struct SdTimes {
    std::chrono::milliseconds initialDelayMin{10};
    std::chrono::milliseconds initialDelayMax{30};
    std::chrono::milliseconds repetitionBase{30};  ///< doubled at each repetition
    std::uint32_t repetitions = 3;
    std::chrono::milliseconds cyclicOffer{1000};
    std::uint32_t ttlSeconds = 3;  ///< of our offers and subscriptions; kTtlUntilReboot: unlimited
};

/// One instance of a service.
struct ServiceKey {
    std::uint16_t service = 0;
    std::uint16_t instance = 0;
    std::uint8_t major = 0;

    auto operator<=>(const ServiceKey&) const = default;
};

struct EventgroupKey {
    ServiceKey service;
    std::uint16_t eventgroup = 0;

    auto operator<=>(const EventgroupKey&) const = default;
};

/// An instance that a peer offers.
struct RemoteService {
    ServiceKey key;
    std::uint32_t minor = 0;
    std::vector<Endpoint> endpoints;   ///< where its events come from: for UDP, for TCP, or both
    Endpoint peer;                     ///< its service discovery
    std::uint64_t life = 0;            ///< differs from one appearance to the next
    bool explicitInitialData = false;  ///< its peer sends initial events when a subscription asks for them

    /// Returns nullptr if it is not offered over that protocol.
    const Endpoint* over(Protocol protocol) const noexcept {
        const auto found = std::ranges::find(endpoints, protocol, &Endpoint::protocol);
        return found == endpoints.end() ? nullptr : &*found;
    }
};

/// The protocols that the events of a service or an eventgroup use.
struct Protocols {
    bool udp = false;
    bool tcp = false;

    void add(Protocol protocol) noexcept { (protocol == Protocol::Tcp ? tcp : udp) = true; }
    bool has(Protocol protocol) const noexcept { return protocol == Protocol::Tcp ? tcp : udp; }
};

enum class SubscriptionState : std::uint8_t {
    Idle,       ///< the service is not offered, or its TCP connection is not established
    Requested,  ///< sent, no answer yet
    Acknowledged,
    Refused,
};

/// Receives the client's changes. As the other observers, called from inside ServiceDiscovery, so it must not
/// call back into it.
class SdClientObserver {
  public:
    virtual ~SdClientObserver() = default;
    virtual void serviceUp(const RemoteService& service) = 0;
    virtual void serviceDown(const RemoteService& service, const char* reason) = 0;
    /// An offer that cannot be used, each time it comes.
    virtual void offerUnusable(const ServiceKey& service, const Endpoint& peer, const char* reason) = 0;
    virtual void subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) = 0;
    /// The acknowledgement names a multicast group that carries the events.
    virtual void multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) = 0;
};

/// Receives the server's changes.
class SdServerObserver {
  public:
    virtual ~SdServerObserver() = default;
    virtual void subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) = 0;
    virtual void subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) = 0;
};

class SdPeerObserver {
  public:
    virtual ~SdPeerObserver() = default;
    virtual void peerRebooted(const Endpoint& peer) = 0;
};

struct SdObservers {
    SdClientObserver& client;
    SdServerObserver& server;
    SdPeerObserver& peers;
};

/// Entries that wait to be sent, by receiver.
class SdOutbox {
  public:
    SdMessageBuilder& multicast() { return m_multicast; }
    SdMessageBuilder& to(const Endpoint& peer) { return m_unicast[peer]; }

    struct Datagram {
        std::optional<Endpoint> to;  ///< none: the multicast or broadcast group
        std::vector<std::uint8_t> bytes;
    };
    /// Returns and removes all entries as numbered messages, as few as possible.
    std::vector<Datagram> take();

    /// Peers with session numbers of their own, at most; beyond it the numbers of an unused one are
    /// forgotten.
    static constexpr std::size_t kMaxRelations = 1024;

  private:
    SdMessageBuilder m_multicast;
    std::map<Endpoint, SdMessageBuilder> m_unicast;
    SdSessionCounter m_multicastSession;
    std::map<Endpoint, SdSessionCounter> m_unicastSessions;
};

/// The message that an entry came with.
struct SdOrigin {
    Endpoint peer;
    bool multicast = false;
    bool explicitInitialData = false;
};

/// The client side: searches services, remembers offers and keeps subscriptions alive.
class SdClient {
  public:
    SdClient(const SdTimes& times, const Endpoint& receiver, const Network& network, SdOutbox& outbox,
             SdClientObserver& observer, std::minstd_rand& random)
        : m_times(times),
          m_receiver(receiver),
          m_network(network),
          m_outbox(outbox),
          m_observer(observer),
          m_random(random) {}

    /// Searches a service; the instance may be kAnyInstance. A repeated call for a missing service sends
    /// another find message, at most every ten seconds.
    void want(const ServiceKey& service, Clock::time_point now);
    /// Subscribes now or as soon as the service is offered. Reference-counted: each call needs one
    /// dropEventgroup(). `protocol` is the one of the description: a service that is offered over the other
    /// one alone is subscribed over that.
    void wantEventgroup(const EventgroupKey& eventgroup, Protocol protocol, Clock::time_point now);
    void dropEventgroup(const EventgroupKey& eventgroup);

    /// The matching instances that are offered now; the instance may be kAnyInstance.
    std::vector<RemoteService> offered(const ServiceKey& service) const;
    /// All instances that are remembered, requested or not, ascending.
    std::vector<RemoteService> offered() const;
    const RemoteService* find(const ServiceKey& service) const;
    SubscriptionState state(const EventgroupKey& eventgroup) const;

    /// The TCP endpoints of servers that subscriptions need a connection to.
    std::set<Endpoint> neededConnections() const;
    /// Subscribes what waits for the connection. `local` is its own end.
    void connected(const Endpoint& server, const Endpoint& local, Clock::time_point now);
    void disconnected(const Endpoint& server);
    /// Returns and forgets the connections whose server has refused a subscription while none of them is
    /// acknowledged: it may have lost its end.
    std::set<Endpoint> takeSuspects() { return std::exchange(m_suspects, {}); }

    void onOffer(const SdEntry& entry, const SdOrigin& from, Clock::time_point now);
    void onAcknowledgement(const SdEntry& entry, const Endpoint& peer, Clock::time_point now);
    void onReboot(const Endpoint& peer, Clock::time_point now);
    void onTime(Clock::time_point now);
    Clock::time_point nextDeadline() const;
    /// Sends stop-subscribe for all subscriptions.
    void shutdown();

    /// Instances remembered in all: unrequested ones up to this number, requested ones up to twice as many.
    static constexpr std::size_t kMaxOffers = 1024;

  private:
    struct Search {
        std::uint32_t sent = 0;
        Clock::time_point next = Clock::time_point::max();
        Clock::time_point lastSent = Clock::time_point::min();
    };
    struct Offer {
        RemoteService service;
        Clock::time_point expiry;
        Clock::time_point heard;  ///< the last offer or acknowledgement
    };
    struct Subscription {
        std::uint32_t wishes = 0;
        Protocols protocols;              ///< of the events that were requested
        std::vector<Endpoint> receivers;  ///< our endpoints in the last request
        SubscriptionState state = SubscriptionState::Idle;
        bool answered = false;
        bool byMulticastOffer = false;  ///< what caused the last request: only then its answer is missed
        std::uint32_t failures = 0;
        Clock::time_point notBefore = Clock::time_point::min();
        Clock::time_point renewAt = Clock::time_point::max();
        Clock::time_point acknowledgedUntil = Clock::time_point::max();
    };
    using Offers = std::map<ServiceKey, Offer>;
    using Subscriptions = std::map<EventgroupKey, Subscription>;

    static bool matches(const ServiceKey& wanted, const ServiceKey& offered);
    bool isWanted(const ServiceKey& service) const;
    bool isOffered(const ServiceKey& wanted) const;
    void startSearch(Search& search, Clock::time_point now);
    enum class After : std::uint8_t { Search, Wait };  ///< for the next offer
    Offers::iterator lose(Offers::iterator offer, const char* reason, Clock::time_point now,
                          After after = After::Search);
    const char* whyUnusable(const ServiceKey& key, const SdEntry& entry) const;
    void subscribeAll(const RemoteService& service, bool byMulticastOffer, Clock::time_point now);
    void request(const EventgroupKey& key, Subscription& subscription, const RemoteService& service,
                 bool byMulticastOffer, Clock::time_point now);
    void failed(Subscription& subscription, Clock::time_point now);
    void set(const EventgroupKey& key, Subscription& subscription, SubscriptionState state);
    bool uses(const EventgroupKey& key, const Subscription& subscription, const Endpoint& server) const;
    void stop(const EventgroupKey& key, const Subscription& subscription, const RemoteService& service);
    /// The protocols that the subscription uses with that service.
    static Protocols used(const Subscription& subscription, const RemoteService& service);
    /// Our endpoints for a subscription; none while a connection is missing.
    std::vector<Endpoint> receivers(const Subscription& subscription, const RemoteService& service) const;
    static SdEntry subscribeEntry(const EventgroupKey& key, std::vector<Endpoint> receivers,
                                  std::uint32_t ttl);
    std::pair<Subscriptions::iterator, Subscriptions::iterator> subscriptionsOf(const ServiceKey& service);

    const SdTimes m_times;
    const Endpoint m_receiver;
    const Network m_network;
    SdOutbox& m_outbox;
    SdClientObserver& m_observer;
    std::minstd_rand& m_random;
    std::uint64_t m_lives = 0;
    std::map<ServiceKey, Search> m_searches;
    Offers m_offers;
    Subscriptions m_subscriptions;
    std::map<Endpoint, Endpoint> m_connections;  ///< established ones: the server's end and ours
    std::set<Endpoint> m_suspects;
};

/// The server side: offers services and keeps their subscribers.
class SdServer {
  public:
    /// `udp` and `tcp` are the endpoints that events are sent from.
    SdServer(const SdTimes& times, const Endpoint& udp, const Endpoint& tcp, const Network& network,
             SdOutbox& outbox, SdServerObserver& observer, std::minstd_rand& random)
        : m_times(times),
          m_udp(udp),
          m_tcp(tcp),
          m_network(network),
          m_outbox(outbox),
          m_observer(observer),
          m_random(random) {}

    /// `eventgroups` names the protocols of their events; a subscription must have an endpoint for each.
    void offer(const ServiceKey& service, std::uint32_t minor,
               const std::map<std::uint16_t, Protocols>& eventgroups, Clock::time_point now);
    /// Sends stop-offer and removes the subscribers.
    void withdraw(const ServiceKey& service);

    void onFind(const SdEntry& entry, const Endpoint& peer);
    void onSubscribe(const SdEntry& entry, const Endpoint& peer, Clock::time_point now);
    void onReboot(const Endpoint& peer);
    /// Where the events that a peer has subscribed go.
    std::vector<Endpoint> receiversOf(const Endpoint& peer) const;
    /// A client's TCP connection, by its end. A subscription over TCP needs one, and ends with it.
    void clientConnected(const Endpoint& client) { m_clients.insert(client); }
    void clientLost(const Endpoint& client);
    void onTime(Clock::time_point now);
    Clock::time_point nextDeadline() const;
    /// Sends stop-offer for all offers.
    void shutdown();

    /// Subscribers of one eventgroup, at most; more are refused.
    static constexpr std::size_t kMaxSubscribers = 64;

  private:
    struct Offered {
        std::uint32_t minor = 0;
        std::map<std::uint16_t, Protocols> eventgroups;
        bool announced = false;         ///< the first offer was sent
        std::uint32_t repetitions = 0;  ///< sent after the first offer
        Clock::time_point next;         ///< the next offer; max() in the cyclic phase
    };
    struct Subscriber {
        std::vector<Endpoint> receivers;
        Endpoint peer;
        std::uint8_t counter = 0;
        Clock::time_point expiry;
    };
    using Subscribers = std::map<EventgroupKey, std::vector<Subscriber>>;

    SdEntry offerEntry(const ServiceKey& key, const Offered& offered, std::uint32_t ttl) const;
    template <typename Condition>
    void removeSubscribers(Condition&& condition);
    std::vector<Endpoint> receivers(const EventgroupKey& key, const SdEntry& entry) const;

    const SdTimes m_times;
    const Endpoint m_udp;
    const Endpoint m_tcp;
    const Network m_network;
    SdOutbox& m_outbox;
    SdServerObserver& m_observer;
    std::minstd_rand& m_random;
    std::map<ServiceKey, Offered> m_offered;
    Clock::time_point m_nextCycle =
        Clock::time_point::max();  ///< one for all services, so that they share messages
    Subscribers m_subscribers;
    std::set<Endpoint> m_clients;  ///< ends of the TCP connections of clients
};

/// Both sides and their common parts.
class ServiceDiscovery {
  public:
    /// `udp` and `tcp` are the endpoints of this process for events; messages from outside `network` are
    /// ignored.
    ServiceDiscovery(const SdTimes& times, const Endpoint& udp, const Endpoint& tcp, const Network& network,
                     const SdObservers& observers, std::uint32_t seed);

    SdClient& client() noexcept { return m_client; }
    SdServer& server() noexcept { return m_server; }
    SdOutbox& outbox() noexcept { return m_outbox; }

    /// Takes a datagram of the discovery port. Returns false, with `error`, when a part of it is malformed.
    bool onDatagram(const Endpoint& from, bool multicast, std::span<const std::uint8_t> datagram,
                    Clock::time_point now, std::string& error);
    void onTime(Clock::time_point now);
    Clock::time_point nextDeadline() const;
    void shutdown();

  private:
    /// Keeps the endpoints of our own kind of network. A link-local address is one of the interface that the
    /// message has come through.
    void adopt(SdEntry& entry, const Endpoint& from) const;

    const Network m_network;
    SdPeerObserver& m_observer;
    SdOutbox m_outbox;
    std::minstd_rand m_random;
    SdPeerSessions m_peers;
    SdClient m_client;
    SdServer m_server;
};

}  // namespace someip
