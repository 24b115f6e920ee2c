#include "someip/ServerSide.h"

#include <algorithm>

#include "log/PlatformLog.h"

namespace someip {

void ServerSide::setSilent(bool silent) {
    m_silent = silent;
    for (const auto& provider : m_providers) {
        for (const auto& sender : provider->senders) {
            sender->setSilent(silent);
        }
    }
}

void ServerSide::attach(NetworkAccess* network, Clock::time_point now) {
    m_network = network;
    for (const auto& provider : m_providers) {
        apply(*provider, now);
    }
}

std::shared_ptr<EventSender> ServerSide::addEvent(ServiceProvider& provider,
                                                  const ac::com::EventInterface& event,
                                                  Clock::time_point now) {
    auto sender = std::make_shared<EventSender>(provider.service(), event);
    sender->setSilent(m_silent);
    provider.senders.push_back(sender);
    if (provider.offered) {
        apply(provider, now);
    }
    return sender;
}

void ServerSide::removeEvent(ServiceProvider& provider, const std::shared_ptr<EventSender>& sender,
                             Clock::time_point now) {
    std::erase(provider.senders, sender);
    if (provider.offered) {
        apply(provider, now);
    }
}

bool ServerSide::offer(const std::shared_ptr<ServiceProvider>& provider, Clock::time_point now) {
    if (!m_rules.offers) {
        KYO_LOG(3, "Service " << provider->service().name
                              << " is not offered: the middleware was started for clients only");
        return false;
    }
    m_services.add(provider->service());
    provider->offered = true;
    if (std::ranges::find(m_providers, provider) == m_providers.end()) {
        m_providers.push_back(provider);
    }
    for (const auto& sender : provider->senders) {
        sender->setSilent(m_silent);
    }
    apply(*provider, now);
    return true;
}

void ServerSide::stopOffer(const std::shared_ptr<ServiceProvider>& provider) {
    if (!provider->offered) {
        return;
    }
    provider->offered = false;
    if (m_network != nullptr) {
        m_network->discovery().server().withdraw(provider->key());
    }
    std::erase(m_providers, provider);
}

void ServerSide::apply(const ServiceProvider& provider, Clock::time_point now) {
    if (m_network == nullptr || !m_rules.offers) {
        return;
    }
    std::map<std::uint16_t, Protocols> eventgroups;
    for (const auto& sender : provider.senders) {
        eventgroups[sender->eventgroup()].add(protocolOf(*sender));
    }
    m_network->discovery().server().offer(provider.key(), provider.service().minorVersion, eventgroups, now);
}

Protocol ServerSide::protocolOf(const EventSender& sender) const noexcept {
    return m_rules.overTcp ? Protocol::Tcp : sender.protocol();
}

template <typename Change>
void ServerSide::change(const EventgroupKey& eventgroup, const Endpoint& receiver, bool subscribed,
                        Change&& act) {
    if (const auto unlogged = m_changes[eventgroup].note(Clock::now())) {
        KYO_LOG(5, m_services.describe(eventgroup)
                       << (subscribed ? " is subscribed by " : " is no longer subscribed by ")
                       << toText(receiver) << more(*unlogged));
    }
    for (const auto& provider : m_providers) {
        if (provider->key() != eventgroup.service) {
            continue;
        }
        for (const auto& sender : provider->senders) {
            if (sender->eventgroup() == eventgroup.eventgroup && protocolOf(*sender) == receiver.protocol) {
                act(*sender);
                m_notices.push_back({sender, receiver, subscribed});
            }
        }
    }
}

void ServerSide::subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) {
    const auto outlet = m_network->outlet(receiver);
    change(eventgroup, receiver, true, [&](EventSender& sender) { sender.add(receiver, outlet); });
}

void ServerSide::subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) {
    change(eventgroup, receiver, false, [&](EventSender& sender) { sender.remove(receiver); });
}

}  // namespace someip
