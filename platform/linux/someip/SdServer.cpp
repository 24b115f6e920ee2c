#include <algorithm>

#include "someip/ServiceDiscovery.h"

namespace someip {

namespace {

using namespace std::chrono_literals;

/// Offers that are due within this time share one message.
constexpr auto kTogether = 5ms;

}  // namespace

SdEntry SdServer::offerEntry(const ServiceKey& key, const Offered& offered, std::uint32_t ttl) const {
    SdEntry entry;
    entry.type = SdEntryType::Offer;
    entry.service = key.service;
    entry.instance = key.instance;
    entry.major = key.major;
    entry.minor = offered.minor;
    entry.ttl = ttl;
    const auto uses = [&](Protocol protocol) {
        return std::ranges::any_of(offered.eventgroups,
                                   [&](const auto& group) { return group.second.has(protocol); });
    };
    if (uses(Protocol::Udp) || !uses(Protocol::Tcp)) {
        entry.unicast.push_back(m_udp);
    }
    if (uses(Protocol::Tcp)) {
        entry.unicast.push_back(m_tcp);
    }
    return entry;
}

void SdServer::offer(const ServiceKey& service, std::uint32_t minor,
                     const std::map<std::uint16_t, Protocols>& eventgroups, Clock::time_point now) {
    const auto [place, added] = m_offered.try_emplace(service);
    Offered& offered = place->second;
    offered.minor = minor;
    offered.eventgroups = eventgroups;
    if (!added) {
        return;
    }
    // Services that wait for their first offer share its time and thus one message.
    for (const auto& [key, other] : m_offered) {
        if (&other != &offered && !other.announced && other.next > now) {
            offered.next = other.next;
            return;
        }
    }
    const auto least = std::min(m_times.initialDelayMin, m_times.initialDelayMax).count();
    const auto most = std::max(m_times.initialDelayMin, m_times.initialDelayMax).count();
    offered.next =
        now + std::chrono::milliseconds(std::uniform_int_distribution<long>(least, most)(m_random));
}

template <typename Condition>
void SdServer::removeSubscribers(Condition&& condition) {
    for (auto group = m_subscribers.begin(); group != m_subscribers.end();) {
        auto& list = group->second;
        for (std::size_t i = 0; i < list.size();) {
            if (condition(group->first, list[i])) {
                const auto receivers = std::move(list[i].receivers);
                list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
                for (const Endpoint& receiver : receivers) {
                    m_observer.subscriberRemoved(group->first, receiver);
                }
            } else {
                ++i;
            }
        }
        group = list.empty() ? m_subscribers.erase(group) : std::next(group);
    }
}

void SdServer::withdraw(const ServiceKey& service) {
    const auto found = m_offered.find(service);
    if (found == m_offered.end()) {
        return;
    }
    if (found->second.announced) {
        m_outbox.multicast().add(offerEntry(service, found->second, 0));
    }
    m_offered.erase(found);
    removeSubscribers([&](const EventgroupKey& key, const Subscriber&) { return key.service == service; });
}

void SdServer::onFind(const SdEntry& entry, const Endpoint& peer) {
    for (const auto& [key, offered] : m_offered) {
        if (offered.announced && key.service == entry.service &&
            (entry.instance == kAnyInstance || entry.instance == key.instance) &&
            (entry.major == kAnyMajor || entry.major == key.major) &&
            (entry.minor == kAnyMinor || entry.minor == offered.minor)) {
            m_outbox.to(peer).addOnce(offerEntry(key, offered, m_times.ttlSeconds));
        }
    }
}

/// Where the events go; none when the subscription cannot be accepted.
std::vector<Endpoint> SdServer::receivers(const EventgroupKey& key, const SdEntry& entry) const {
    const auto service = m_offered.find(key.service);
    if (service == m_offered.end() || entry.contradictory()) {
        return {};
    }
    const auto group = service->second.eventgroups.find(key.eventgroup);
    if (group == service->second.eventgroups.end()) {
        return {};
    }
    std::vector<Endpoint> receivers;
    for (const Protocol protocol : {Protocol::Udp, Protocol::Tcp}) {
        if (!group->second.has(protocol)) {
            continue;
        }
        const Endpoint* const receiver = entry.over(protocol);
        if (receiver == nullptr || receiver->port == 0 || !m_network.contains(receiver->address) ||
            (protocol == Protocol::Tcp && !m_clients.contains(*receiver))) {
            return {};
        }
        receivers.push_back(*receiver);
    }
    return receivers;
}

void SdServer::onSubscribe(const SdEntry& entry, const Endpoint& peer, Clock::time_point now) {
    const EventgroupKey key{{entry.service, entry.instance, entry.major}, entry.eventgroup};
    const auto wanted = receivers(key, entry);
    const auto ends = [&](const EventgroupKey& group, const Subscriber& one) {
        return group == key && one.peer == peer && one.counter == entry.counter &&
               std::ranges::all_of(one.receivers, [&](const Endpoint& receiver) {
                   return std::ranges::count(entry.unicast, receiver) != 0;
               });
    };
    if (entry.ttl == 0) {
        removeSubscribers(ends);
        return;
    }
    SdEntry answer = entry;
    answer.type = SdEntryType::SubscribeAck;
    answer.unicast.clear();
    answer.multicast.clear();
    answer.ttl = 0;
    if (!wanted.empty()) {
        auto& list = m_subscribers[key];
        const auto expiry =
            entry.ttl == kTtlUntilReboot ? Clock::time_point::max() : now + std::chrono::seconds(entry.ttl);
        const auto known = std::ranges::find_if(list, [&](const Subscriber& one) {
            return one.peer == peer && one.counter == entry.counter && one.receivers == wanted;
        });
        if (known != list.end()) {
            known->expiry = expiry;
            answer.ttl = entry.ttl;
        } else if (list.size() < kMaxSubscribers) {
            list.push_back({wanted, peer, entry.counter, expiry});
            answer.ttl = entry.ttl;
            for (const Endpoint& receiver : wanted) {
                m_observer.subscriberAdded(key, receiver);
            }
        }
    } else {
        removeSubscribers(ends);
    }
    m_outbox.to(peer).add(answer);
}

void SdServer::clientLost(const Endpoint& client) {
    m_clients.erase(client);
    removeSubscribers([&](const EventgroupKey&, const Subscriber& one) {
        return std::ranges::count(one.receivers, client) != 0;
    });
}

void SdServer::onReboot(const Endpoint& peer) {
    removeSubscribers([&](const EventgroupKey&, const Subscriber& one) { return one.peer == peer; });
}

std::vector<Endpoint> SdServer::receiversOf(const Endpoint& peer) const {
    std::vector<Endpoint> all;
    for (const auto& [key, list] : m_subscribers) {
        for (const Subscriber& one : list) {
            if (one.peer == peer) {
                all.insert(all.end(), one.receivers.begin(), one.receivers.end());
            }
        }
    }
    return all;
}

void SdServer::onTime(Clock::time_point now) {
    removeSubscribers([&](const EventgroupKey&, const Subscriber& one) { return one.expiry <= now; });

    const bool cycle = m_nextCycle <= now;
    bool cyclic = false;
    for (auto& [key, offered] : m_offered) {
        if (offered.next == Clock::time_point::max()) {
            cyclic = true;
            if (cycle) {
                m_outbox.multicast().add(offerEntry(key, offered, m_times.ttlSeconds));
            }
            continue;
        }
        if (offered.next > now + kTogether) {
            continue;
        }
        m_outbox.multicast().add(offerEntry(key, offered, m_times.ttlSeconds));
        if (!offered.announced) {
            offered.announced = true;
            offered.repetitions = 0;
        } else {
            ++offered.repetitions;
        }
        if (offered.repetitions < m_times.repetitions) {
            offered.next = now + m_times.repetitionBase * (1u << std::min(offered.repetitions, 16u));
        } else {
            offered.next = Clock::time_point::max();
            cyclic = true;
        }
    }
    if (!cyclic) {
        m_nextCycle = Clock::time_point::max();
    } else if (cycle || m_nextCycle == Clock::time_point::max()) {
        m_nextCycle = m_times.cyclicOffer.count() > 0 ? now + m_times.cyclicOffer : Clock::time_point::max();
    }
}

Clock::time_point SdServer::nextDeadline() const {
    auto next = m_nextCycle;
    for (const auto& [key, offered] : m_offered) {
        next = std::min(next, offered.next);
    }
    for (const auto& [key, list] : m_subscribers) {
        for (const auto& one : list) {
            next = std::min(next, one.expiry);
        }
    }
    return next;
}

void SdServer::shutdown() {
    for (const auto& [key, offered] : m_offered) {
        if (offered.announced) {
            m_outbox.multicast().add(offerEntry(key, offered, 0));
        }
    }
    m_offered.clear();
    removeSubscribers([](const EventgroupKey&, const Subscriber&) { return true; });
    m_nextCycle = Clock::time_point::max();
}

}  // namespace someip
