#include <algorithm>
#include <utility>

#include "someip/ServiceDiscovery.h"

namespace someip {

namespace {

using namespace std::chrono_literals;

/// Shortest time between find messages for a missing service that is requested repeatedly.
constexpr auto kSearchAgain = 10s;
/// Back-off after a refusal or a missing acknowledgement, doubled each time.
constexpr auto kBackOffFirst = 1s;
constexpr auto kBackOffMost = 8s;
/// A failed subscription is retried at an offer. If none comes within this time after the back-off, it is
/// retried without one: the server may have a long offer cycle.
constexpr auto kRetryWithoutOffer = 2s;
/// An instance that has been silent for so long has moved when another peer offers it: a peer that lives
/// acknowledges our renewals meanwhile.
constexpr auto kMovedAfter = 5s;

Clock::time_point after(std::uint32_t ttlSeconds, Clock::time_point now) {
    return ttlSeconds == kTtlUntilReboot ? Clock::time_point::max() : now + std::chrono::seconds(ttlSeconds);
}

}  // namespace

bool SdClient::matches(const ServiceKey& wanted, const ServiceKey& offered) {
    return wanted.service == offered.service && wanted.major == offered.major &&
           (wanted.instance == kAnyInstance || wanted.instance == offered.instance);
}

bool SdClient::isWanted(const ServiceKey& service) const {
    const auto wanted = [&](const ServiceKey& key) { return m_searches.contains(key); };
    if (wanted(service) || wanted({service.service, kAnyInstance, service.major})) {
        return true;
    }
    const auto first = m_subscriptions.lower_bound({service, 0});
    return first != m_subscriptions.end() && first->first.service == service;
}

bool SdClient::isOffered(const ServiceKey& wanted) const {
    return std::ranges::any_of(m_offers, [&](const auto& one) { return matches(wanted, one.first); });
}

std::vector<RemoteService> SdClient::offered(const ServiceKey& service) const {
    std::vector<RemoteService> found;
    for (const auto& [key, offer] : m_offers) {
        if (matches(service, key)) {
            found.push_back(offer.service);
        }
    }
    return found;
}

std::vector<RemoteService> SdClient::offered() const {
    std::vector<RemoteService> all;
    for (const auto& [key, offer] : m_offers) {
        all.push_back(offer.service);
    }
    return all;
}

const RemoteService* SdClient::find(const ServiceKey& service) const {
    const auto found = m_offers.find(service);
    return found == m_offers.end() ? nullptr : &found->second.service;
}

SubscriptionState SdClient::state(const EventgroupKey& eventgroup) const {
    const auto found = m_subscriptions.find(eventgroup);
    return found == m_subscriptions.end() ? SubscriptionState::Idle : found->second.state;
}

std::pair<SdClient::Subscriptions::iterator, SdClient::Subscriptions::iterator> SdClient::subscriptionsOf(
    const ServiceKey& service) {
    return {m_subscriptions.lower_bound({service, 0}), m_subscriptions.upper_bound({service, 0xFFFF})};
}

void SdClient::want(const ServiceKey& service, Clock::time_point now) {
    const auto [search, added] = m_searches.try_emplace(service);
    if (isOffered(service)) {
        return;
    }
    if (added) {
        startSearch(search->second, now);
    } else if (search->second.next == Clock::time_point::max() &&
               search->second.lastSent + kSearchAgain <= now) {
        search->second.next = now;
    }
}

void SdClient::startSearch(Search& search, Clock::time_point now) {
    // Searches that wait for their first message share its time and thus one message.
    for (const auto& [key, other] : m_searches) {
        if (&other != &search && other.sent == 0 && other.next != Clock::time_point::max() &&
            other.next > now) {
            search.sent = 0;
            search.next = other.next;
            return;
        }
    }
    const auto least = std::min(m_times.initialDelayMin, m_times.initialDelayMax).count();
    const auto most = std::max(m_times.initialDelayMin, m_times.initialDelayMax).count();
    search.sent = 0;
    search.next = now + std::chrono::milliseconds(std::uniform_int_distribution<long>(least, most)(m_random));
}

void SdClient::wantEventgroup(const EventgroupKey& eventgroup, Protocol protocol, Clock::time_point now) {
    Subscription& subscription = m_subscriptions[eventgroup];
    const bool another = !subscription.protocols.has(protocol);
    subscription.protocols.add(protocol);
    ++subscription.wishes;
    if (!another) {
        return;
    }
    want(eventgroup.service, now);
    if (const auto* service = find(eventgroup.service)) {
        request(eventgroup, subscription, *service, false, now);
    }
}

void SdClient::dropEventgroup(const EventgroupKey& eventgroup) {
    const auto found = m_subscriptions.find(eventgroup);
    if (found == m_subscriptions.end() || --found->second.wishes != 0) {
        return;
    }
    const auto* service = find(eventgroup.service);
    if (service != nullptr) {
        stop(eventgroup, found->second, *service);
    }
    set(eventgroup, found->second, SubscriptionState::Idle);
    m_subscriptions.erase(found);
}

void SdClient::stop(const EventgroupKey& key, const Subscription& subscription,
                    const RemoteService& service) {
    if (subscription.state != SubscriptionState::Idle) {
        m_outbox.to(service.peer).add(subscribeEntry(key, subscription.receivers, 0));
    }
}

Protocols SdClient::used(const Subscription& subscription, const RemoteService& service) {
    Protocols used;
    used.udp = subscription.protocols.udp && service.over(Protocol::Udp) != nullptr;
    used.tcp = subscription.protocols.tcp && service.over(Protocol::Tcp) != nullptr;
    if (!used.udp && !used.tcp) {
        used.add(service.endpoints.front().protocol);
    }
    return used;
}

std::vector<Endpoint> SdClient::receivers(const Subscription& subscription,
                                          const RemoteService& service) const {
    const Protocols used = SdClient::used(subscription, service);
    std::vector<Endpoint> ours;
    if (used.udp) {
        ours.push_back(m_receiver);
    }
    if (used.tcp) {
        const auto connection = m_connections.find(*service.over(Protocol::Tcp));
        if (connection == m_connections.end()) {
            return {};
        }
        ours.push_back(connection->second);
    }
    return ours;
}

std::set<Endpoint> SdClient::neededConnections() const {
    std::set<Endpoint> needed;
    for (const auto& [key, subscription] : m_subscriptions) {
        const auto* service = find(key.service);
        if (service != nullptr && used(subscription, *service).tcp) {
            needed.insert(*service->over(Protocol::Tcp));
        }
    }
    return needed;
}

bool SdClient::uses(const EventgroupKey& key, const Subscription& subscription,
                    const Endpoint& server) const {
    const auto* service = find(key.service);
    return service != nullptr && used(subscription, *service).tcp && *service->over(Protocol::Tcp) == server;
}

void SdClient::connected(const Endpoint& server, const Endpoint& local, Clock::time_point now) {
    m_connections[server] = local;
    for (auto& [key, subscription] : m_subscriptions) {
        if (uses(key, subscription, server)) {
            request(key, subscription, *find(key.service), false, now);
        }
    }
}

void SdClient::disconnected(const Endpoint& server) {
    m_connections.erase(server);
    for (auto& [key, subscription] : m_subscriptions) {
        if (uses(key, subscription, server)) {
            // The part over UDP, if there is one, ends with it.
            stop(key, subscription, *find(key.service));
            subscription.renewAt = Clock::time_point::max();
            subscription.byMulticastOffer = false;
            set(key, subscription, SubscriptionState::Idle);
        }
    }
}

SdEntry SdClient::subscribeEntry(const EventgroupKey& key, std::vector<Endpoint> receivers,
                                 std::uint32_t ttl) {
    SdEntry entry;
    entry.type = SdEntryType::Subscribe;
    entry.service = key.service.service;
    entry.instance = key.service.instance;
    entry.major = key.service.major;
    entry.eventgroup = key.eventgroup;
    entry.ttl = ttl;
    entry.unicast = std::move(receivers);
    return entry;
}

void SdClient::request(const EventgroupKey& key, Subscription& subscription, const RemoteService& service,
                       bool byMulticastOffer, Clock::time_point now) {
    auto ours = receivers(subscription, service);
    if (ours.empty()) {
        subscription.renewAt = Clock::time_point::max();
        return;  // connected() does it
    }
    const bool missed = byMulticastOffer && subscription.byMulticastOffer && !subscription.answered;
    if (subscription.receivers != ours) {
        stop(key, subscription, service);  // the server knows a subscription by its endpoints
        subscription.receivers = ours;
    }
    auto entry = subscribeEntry(key, std::move(ours), m_times.ttlSeconds);
    entry.initialDataRequested = missed || subscription.state != SubscriptionState::Acknowledged;
    // Some servers remember a refusal, or half a subscription, until it is stopped.
    if (subscription.state == SubscriptionState::Refused || (missed && !service.explicitInitialData)) {
        m_outbox.to(service.peer).addPair(subscribeEntry(key, subscription.receivers, 0), std::move(entry));
    } else {
        m_outbox.to(service.peer).add(std::move(entry));
    }
    subscription.answered = false;
    subscription.byMulticastOffer = byMulticastOffer;
    // Renewed without an offer, for a TTL that is shorter than the offers' cycle.
    subscription.renewAt =
        m_times.ttlSeconds == kTtlUntilReboot
            ? Clock::time_point::max()
            : now + std::chrono::milliseconds(std::uint64_t{m_times.ttlSeconds} * 1000 * 2 / 3);
    if (subscription.state != SubscriptionState::Acknowledged) {
        set(key, subscription, SubscriptionState::Requested);
    }
}

void SdClient::failed(Subscription& subscription, Clock::time_point now) {
    const auto wait =
        std::min<Clock::duration>(kBackOffFirst * (1u << std::min(subscription.failures, 10u)), kBackOffMost);
    ++subscription.failures;
    subscription.notBefore = now + wait;
    subscription.renewAt = subscription.notBefore + kRetryWithoutOffer;
}

void SdClient::set(const EventgroupKey& key, Subscription& subscription, SubscriptionState state) {
    if (subscription.state != state) {
        subscription.state = state;
        m_observer.subscriptionChanged(key, state);
    }
}

void SdClient::subscribeAll(const RemoteService& service, bool byMulticastOffer, Clock::time_point now) {
    const auto [first, last] = subscriptionsOf(service.key);
    for (auto one = first; one != last; ++one) {
        Subscription& subscription = one->second;
        if (now < subscription.notBefore) {
            continue;
        }
        // The first retry comes with the first offer after an unanswered request; later ones back off.
        const bool unanswered = subscription.state == SubscriptionState::Requested && !subscription.answered;
        request(one->first, subscription, service, byMulticastOffer, now);
        if (unanswered) {
            failed(subscription, now);
        }
    }
}

/// Returns nullptr for an offer that can be used.
const char* SdClient::whyUnusable(const ServiceKey& key, const SdEntry& entry) const {
    if (key.instance == 0 || key.instance == kAnyInstance || key.major == kAnyMajor) {
        return "it names no instance or version";
    }
    if (entry.unicast.empty()) {
        if (!entry.otherEndpoint) {
            return "it has no endpoint";
        }
        return m_network.base.isIpv6() ? "it has no endpoint for UDP or TCP over IPv6"
                                       : "it has no endpoint for UDP or TCP over IPv4";
    }
    if (entry.contradictory()) {
        return "its endpoints contradict each other";
    }
    for (const Endpoint& endpoint : entry.unicast) {
        if (endpoint.port == 0) {
            return "its port is 0";
        }
        if (!m_network.contains(endpoint.address)) {
            return "its endpoint is outside of the network";
        }
    }
    return nullptr;
}

void SdClient::onOffer(const SdEntry& entry, const SdOrigin& from, Clock::time_point now) {
    const Endpoint& peer = from.peer;
    const ServiceKey key{entry.service, entry.instance, entry.major};
    const auto known = m_offers.find(key);
    if (entry.ttl == 0) {
        // Only the offering peer may stop the offer.
        if (known != m_offers.end() && known->second.service.peer == peer) {
            lose(known, "its offer was stopped", now, After::Wait);
        }
        return;
    }
    if (const char* const reason = whyUnusable(key, entry)) {
        m_observer.offerUnusable(key, peer, reason);
        return;
    }
    std::vector<Endpoint> endpoints;
    for (const Protocol protocol : {Protocol::Udp, Protocol::Tcp}) {
        if (const Endpoint* const endpoint = entry.over(protocol)) {
            endpoints.push_back(*endpoint);
        }
    }
    if (known != m_offers.end()) {
        if (known->second.service.peer != peer && now - known->second.heard < kMovedAfter) {
            m_observer.offerUnusable(key, peer, "another peer offers the same instance");
            return;
        }
        if (known->second.service.peer == peer && known->second.service.endpoints == endpoints) {
            known->second.expiry = after(entry.ttl, now);
            known->second.heard = now;
            known->second.service.explicitInitialData = from.explicitInitialData;
            subscribeAll(known->second.service, from.multicast, now);
            return;
        }
        lose(known, "its endpoint changed", now, After::Wait);
    }
    if (m_offers.size() >= (isWanted(key) ? 2 * kMaxOffers : kMaxOffers)) {
        m_observer.offerUnusable(key, peer, "too many services are offered");
        return;
    }
    const RemoteService service{key, entry.minor, endpoints, peer, ++m_lives, from.explicitInitialData};
    const auto added = m_offers.insert_or_assign(key, Offer{service, after(entry.ttl, now), now}).first;
    for (auto& [wanted, search] : m_searches) {
        if (matches(wanted, key)) {
            search.next = Clock::time_point::max();
        }
    }
    const auto [first, last] = subscriptionsOf(key);
    for (auto one = first; one != last; ++one) {
        one->second.failures = 0;
        one->second.notBefore = Clock::time_point::min();
    }
    m_observer.serviceUp(added->second.service);
    subscribeAll(added->second.service, from.multicast, now);
}

void SdClient::onAcknowledgement(const SdEntry& entry, const Endpoint& peer, Clock::time_point now) {
    const EventgroupKey key{{entry.service, entry.instance, entry.major}, entry.eventgroup};
    const auto found = m_subscriptions.find(key);
    const auto offer = m_offers.find(key.service);
    if (found == m_subscriptions.end() || offer == m_offers.end() || offer->second.service.peer != peer ||
        entry.counter != 0) {
        return;
    }
    offer->second.heard = now;
    Subscription& subscription = found->second;
    if (subscription.state == SubscriptionState::Idle) {
        return;
    }
    subscription.answered = true;
    if (entry.ttl == 0) {
        failed(subscription, now);
        set(key, subscription, SubscriptionState::Refused);
        const Endpoint* const server = offer->second.service.over(Protocol::Tcp);
        if (server != nullptr && uses(key, subscription, *server) &&
            std::ranges::none_of(m_subscriptions, [&](const auto& one) {
                return one.second.state == SubscriptionState::Acknowledged &&
                       uses(one.first, one.second, *server);
            })) {
            m_suspects.insert(*server);
        }
        return;
    }
    subscription.failures = 0;
    subscription.notBefore = Clock::time_point::min();
    subscription.acknowledgedUntil = after(entry.ttl, now);
    set(key, subscription, SubscriptionState::Acknowledged);
    if (!entry.multicast.empty() && entry.multicast.front().address.isMulticast()) {
        m_observer.multicastGiven(key, entry.multicast.front());
    }
}

SdClient::Offers::iterator SdClient::lose(Offers::iterator offer, const char* reason, Clock::time_point now,
                                          After after) {
    const RemoteService service = offer->second.service;
    const auto next = m_offers.erase(offer);
    const auto [first, last] = subscriptionsOf(service.key);
    for (auto one = first; one != last; ++one) {
        one->second.renewAt = Clock::time_point::max();
        one->second.byMulticastOffer = false;
        set(one->first, one->second, SubscriptionState::Idle);
    }
    m_observer.serviceDown(service, reason);
    for (auto& [wanted, search] : m_searches) {
        if (after == After::Search && matches(wanted, service.key) && !isOffered(wanted)) {
            startSearch(search, now);
        }
    }
    return next;
}

void SdClient::onReboot(const Endpoint& peer, Clock::time_point now) {
    for (auto offer = m_offers.begin(); offer != m_offers.end();) {
        offer =
            offer->second.service.peer == peer ? lose(offer, "its peer has rebooted", now) : std::next(offer);
    }
}

void SdClient::onTime(Clock::time_point now) {
    for (auto offer = m_offers.begin(); offer != m_offers.end();) {
        offer =
            offer->second.expiry <= now ? lose(offer, "its offer was not renewed", now) : std::next(offer);
    }
    for (auto& [key, subscription] : m_subscriptions) {
        if (subscription.state == SubscriptionState::Acknowledged && subscription.acknowledgedUntil <= now) {
            set(key, subscription, SubscriptionState::Requested);
        }
        if (subscription.renewAt <= now) {
            if (const auto* service = find(key.service)) {
                const bool unanswered =
                    subscription.state == SubscriptionState::Requested && !subscription.answered;
                request(key, subscription, *service, false, now);
                if (unanswered) {
                    failed(subscription, now);
                }
            } else {
                subscription.renewAt = Clock::time_point::max();
            }
        }
    }
    for (auto& [key, search] : m_searches) {
        if (search.next > now) {
            continue;
        }
        SdEntry entry;
        entry.type = SdEntryType::Find;
        entry.service = key.service;
        entry.instance = key.instance;
        entry.major = key.major;
        entry.minor = kAnyMinor;
        entry.ttl = m_times.ttlSeconds;
        m_outbox.multicast().add(entry);
        search.lastSent = now;
        search.next = search.sent < m_times.repetitions
                          ? now + m_times.repetitionBase * (1u << std::min(search.sent, 16u))
                          : Clock::time_point::max();
        ++search.sent;
    }
}

Clock::time_point SdClient::nextDeadline() const {
    auto next = Clock::time_point::max();
    for (const auto& [key, offer] : m_offers) {
        next = std::min(next, offer.expiry);
    }
    for (const auto& [key, subscription] : m_subscriptions) {
        next = std::min(next, subscription.renewAt);
        if (subscription.state == SubscriptionState::Acknowledged) {
            next = std::min(next, subscription.acknowledgedUntil);
        }
    }
    for (const auto& [key, search] : m_searches) {
        next = std::min(next, search.next);
    }
    return next;
}

void SdClient::shutdown() {
    for (auto& [key, subscription] : m_subscriptions) {
        const auto* service = find(key.service);
        if (service != nullptr) {
            stop(key, subscription, *service);
        }
    }
    m_subscriptions.clear();
    m_searches.clear();
    m_offers.clear();
}

}  // namespace someip
