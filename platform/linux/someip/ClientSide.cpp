#include "someip/ClientSide.h"

#include "log/PlatformLog.h"
#include "someip/Counters.h"

namespace someip {

void ClientSide::attach(NetworkAccess* network, Clock::time_point now) {
    m_network = network;
    m_routesVersion.fetch_add(1);
    if (network == nullptr) {
        m_refused.clear();
        return;
    }
    SdClient& client = network->discovery().client();
    for (const ServiceKey& search : m_searches) {
        client.want(search, now);
    }
    for (const auto& receiver : m_receivers) {
        client.wantEventgroup(receiver->eventgroup(), receiver->protocol(), now);
    }
}

std::vector<ServiceKey> ClientSide::find(const ServiceKey& service, Clock::time_point now) {
    m_searches.insert(service);
    std::vector<ServiceKey> found;
    if (m_network != nullptr) {
        SdClient& client = m_network->discovery().client();
        client.want(service, now);
        for (const auto& one : client.offered(service)) {
            found.push_back(one.key);
        }
    }
    return found;
}

void ClientSide::add(const std::shared_ptr<EventReceiver>& receiver, Clock::time_point now) {
    m_receivers.push_back(receiver);
    m_routesVersion.fetch_add(1);
    if (m_network != nullptr) {
        m_network->discovery().client().wantEventgroup(receiver->eventgroup(), receiver->protocol(), now);
    }
}

void ClientSide::remove(const std::shared_ptr<EventReceiver>& receiver) {
    if (std::erase(m_receivers, receiver) == 0) {
        return;
    }
    m_routesVersion.fetch_add(1);
    if (m_network != nullptr) {
        m_network->discovery().client().dropEventgroup(receiver->eventgroup());
    }
}

SubscriptionState ClientSide::state(const EventgroupKey& eventgroup) const {
    return m_network == nullptr ? SubscriptionState::Idle : m_network->discovery().client().state(eventgroup);
}

std::vector<EventDispatcher::Route> ClientSide::routes() const {
    std::vector<EventDispatcher::Route> routes;
    if (m_network == nullptr) {
        return routes;
    }
    const SdClient& client = m_network->discovery().client();
    for (const auto& receiver : m_receivers) {
        const auto* service = client.find(receiver->eventgroup().service);
        const auto state = client.state(receiver->eventgroup());
        // An event may overtake the acknowledgement: they come through different sockets.
        if (service != nullptr &&
            (state == SubscriptionState::Requested || state == SubscriptionState::Acknowledged)) {
            for (const Endpoint& source : service->endpoints) {
                routes.push_back({source, receiver, service->life});
            }
        }
    }
    return routes;
}

void ClientSide::logChange(const RemoteService& service, const char* what, const std::string& reason) {
    auto* const known = m_services.find(service.key.service);
    if (const auto unlogged = (known == nullptr ? m_otherChanges : known->changes).note(Clock::now())) {
        KYO_LOG(known == nullptr ? 7 : 5, "Service " << m_services.describe(service.key) << what
                                                     << toText(service.endpoints.front()) << reason
                                                     << more(*unlogged));
    }
}

void ClientSide::serviceUp(const RemoteService& service) {
    m_routesVersion.fetch_add(1);
    logChange(service, " found at ", "");
}

void ClientSide::serviceDown(const RemoteService& service, const char* reason) {
    m_routesVersion.fetch_add(1);
    logChange(service, " lost at ", std::string(": ") + reason);
}

void ClientSide::offerUnusable(const ServiceKey& service, const Endpoint& peer, const char* reason) {
    counters().sdUnusable.add();
    auto* const known = m_services.find(service.service);
    if (const auto unlogged = (known == nullptr ? m_otherUnusable : known->unusable).note(Clock::now())) {
        KYO_LOG(known == nullptr ? 7 : 3, "The offer of service " << m_services.describe(service) << " by "
                                                                  << toText(peer) << " is ignored: " << reason
                                                                  << more(*unlogged));
    }
}

void ClientSide::subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) {
    m_routesVersion.fetch_add(1);
    const auto unlogged = m_changes[eventgroup].note(Clock::now());
    const auto log = [&](int level, const char* what) {
        if (unlogged) {
            KYO_LOG(level, m_services.describe(eventgroup) << what << more(*unlogged));
        }
    };
    switch (state) {
        case SubscriptionState::Idle:
            log(7, ": not subscribed");
            if (m_network != nullptr) {
                m_network->groups().drop(eventgroup);
            }
            break;
        case SubscriptionState::Requested:
            log(7, ": subscription requested");
            break;
        case SubscriptionState::Acknowledged:
            m_refused.erase(eventgroup);
            log(5, ": subscribed");
            break;
        case SubscriptionState::Refused:
            // The request is repeated, but logged once.
            log(unlogged && m_refused.insert(eventgroup).second ? 3 : 7,
                ": subscription refused by the service");
            break;
    }
}

void ClientSide::multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) {
    m_network->groups().want(eventgroup, group);
}

}  // namespace someip
