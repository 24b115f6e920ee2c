#include "someip/Runtime.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <system_error>
#include <thread>

#include "log/PlatformLog.h"
#include "someip/Counters.h"
#include "someip/EventLoop.h"

namespace someip {

namespace {

using namespace std::chrono_literals;

constexpr auto kOpenAgain = 1s;
/// Batches of discovery datagrams that are read at once: waiting messages are handled before deadlines are
/// checked.
constexpr int kDiscoveryBatches = 8;
/// Multicast groups that acknowledgements may add, at most.
constexpr std::size_t kMaxEventGroups = 32;

std::string hex(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

ReassemblyLimits limitsOf(const machine::SomeIpSettings& settings) {
    ReassemblyLimits limits;
    limits.maxMessageBytes = settings.maxSampleBytes;
    limits.maxTotalBytes = std::size_t{4} * settings.maxSampleBytes;
    limits.maxOpenSets = std::max(1u, settings.maxOpenReassemblies);
    limits.timeout = std::chrono::milliseconds(settings.reassemblyTimeoutMs);
    return limits;
}

}  // namespace

/// The thread from start() to stop(), and what it waits for. The thread shares ownership, since it may
/// outlive the runtime while it is in a handler.
struct Runtime::Worker {
    void finished() {
        const std::lock_guard lock(guard);
        done = true;
        ended.notify_all();
    }

    EventLoop loop;
    std::atomic<bool> stop{false};
    std::thread thread;
    ReassemblyLimits limits;
    std::mutex guard;
    std::condition_variable ended;
    bool done = false;
};

Runtime& Runtime::process() {
    static Runtime* const runtime = new Runtime;
    return *runtime;
}

Runtime::~Runtime() {
    stop(std::chrono::hours(24));
    for (const auto& worker : m_leftBehind) {
        std::unique_lock lock(worker->guard);
        worker->ended.wait(lock, [&] { return worker->done; });
    }
}

bool Runtime::start(const machine::SomeIpSettings& settings, bool providesServices) {
    const std::lock_guard lock(m_guard);
    if (m_worker != nullptr) {
        KYO_LOG(3, "The middleware runs already");
        return false;
    }
    m_settings = settings;
    m_providesServices = providesServices;
    m_openFailure.clear();
    std::shared_ptr<Worker> worker;
    try {
        worker = std::make_shared<Worker>();
        worker->limits = limitsOf(settings);
        // The new thread waits for the lock before it does anything.
        worker->thread = std::thread([this, worker] {
            work(*worker);
            worker->finished();
        });
    } catch (const std::system_error& failure) {
        KYO_LOG(3, "The middleware cannot be started: " << failure.what());
        return false;
    }
    m_worker = std::move(worker);
    openNetwork(Clock::now());
    return true;
}

void Runtime::stop(std::chrono::milliseconds limit) {
    std::shared_ptr<Worker> worker;
    std::vector<Notice> notices;
    {
        const std::lock_guard lock(m_guard);
        if (m_worker == nullptr) {
            return;
        }
        worker = std::move(m_worker);
        m_worker = nullptr;
        worker->stop.store(true);
        closeNetwork(true);
        notices.swap(m_notices);
    }
    worker->loop.wake();
    bool done = false;
    if (worker->thread.get_id() != std::this_thread::get_id()) {
        std::unique_lock lock(worker->guard);
        done = worker->ended.wait_for(lock, limit, [&] { return worker->done; });
        if (!done) {
            KYO_LOG(3, "A receive handler does not return; its thread is left behind");
        }
    }
    if (done) {
        worker->thread.join();
    } else {
        worker->thread.detach();
        const std::lock_guard lock(m_guard);
        m_leftBehind.push_back(worker);
    }
    notify(notices, nullptr);
}

void Runtime::setSilent(bool silent) {
    const std::lock_guard lock(m_guard);
    m_silent.store(silent, std::memory_order_relaxed);
    for (const auto& provider : m_providers) {
        for (const auto& sender : provider->senders) {
            sender->setSilent(silent);
        }
    }
    wake();
}

Endpoint Runtime::eventEndpoint() const {
    const std::lock_guard lock(m_guard);
    return m_network == nullptr ? Endpoint{} : m_network->eventEndpoint();
}

std::string Runtime::failure() const {
    const std::lock_guard lock(m_guard);
    return m_openFailure;
}

void Runtime::wake() const {
    if (m_worker != nullptr) {
        m_worker->loop.wake();
    }
}

std::string Runtime::nameOf(const ServiceKey& service) const {
    const auto known = m_known.find(service.service);
    return (known == m_known.end() ? std::string() : known->second.name + " ") + "(" + hex(service.service) +
           ", instance " + std::to_string(service.instance) + ", version " + std::to_string(service.major) +
           ")";
}

// ---------------------------------------------------------------------------------------------- clients

std::vector<ServiceKey> Runtime::findService(const ac::com::ServiceInterface& service,
                                             std::uint16_t instance) {
    const ServiceKey key{service.serviceId, instance, service.majorVersion};
    const std::lock_guard lock(m_guard);
    m_known.try_emplace(service.serviceId).first->second.name = service.name;
    m_searches.insert(key);
    std::vector<ServiceKey> found;
    if (m_network != nullptr) {
        m_network->discovery().client().want(key, Clock::now());
        for (const auto& one : m_network->discovery().client().offered(key)) {
            found.push_back(one.key);
        }
        wake();
    }
    return found;
}

std::vector<RemoteService> Runtime::offers() const {
    const std::lock_guard lock(m_guard);
    return m_network == nullptr ? std::vector<RemoteService>() : m_network->discovery().client().offered();
}

std::shared_ptr<EventReceiver> Runtime::receive(const ac::com::ServiceInterface& service,
                                                std::uint16_t instance, const ac::com::EventInterface& event,
                                                EventReceiver::Handler handler) {
    auto receiver = std::make_shared<EventReceiver>(service, instance, event, std::move(handler));
    const std::lock_guard lock(m_guard);
    m_known.try_emplace(service.serviceId).first->second.name = service.name;
    m_receivers.push_back(receiver);
    m_routesVersion.fetch_add(1);
    if (m_network != nullptr) {
        m_network->discovery().client().wantEventgroup(receiver->eventgroup(), receiver->protocol(),
                                                       Clock::now());
        wake();
    }
    return receiver;
}

void Runtime::release(const std::shared_ptr<EventReceiver>& receiver) {
    {
        const std::lock_guard lock(m_guard);
        if (std::erase(m_receivers, receiver) != 0) {
            m_routesVersion.fetch_add(1);
            if (m_network != nullptr) {
                m_network->discovery().client().dropEventgroup(receiver->eventgroup());
                wake();
            }
        }
    }
    receiver->close();
}

SubscriptionState Runtime::subscriptionState(const EventgroupKey& eventgroup) const {
    const std::lock_guard lock(m_guard);
    return m_network == nullptr ? SubscriptionState::Idle : m_network->discovery().client().state(eventgroup);
}

std::vector<EventDispatcher::Route> Runtime::routes() const {
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

// ---------------------------------------------------------------------------------------------- servers

std::shared_ptr<EventSender> Runtime::addEvent(const std::shared_ptr<ServiceProvider>& provider,
                                               const ac::com::EventInterface& event) {
    auto sender = std::make_shared<EventSender>(provider->service(), event);
    const std::lock_guard lock(m_guard);
    sender->setSilent(m_silent.load(std::memory_order_relaxed));
    provider->senders.push_back(sender);
    if (provider->offered) {
        applyOffer(*provider, Clock::now());
    }
    return sender;
}

void Runtime::removeEvent(const std::shared_ptr<ServiceProvider>& provider,
                          const std::shared_ptr<EventSender>& sender) {
    {
        const std::lock_guard lock(m_guard);
        std::erase(provider->senders, sender);
        if (provider->offered) {
            applyOffer(*provider, Clock::now());
        }
    }
    sender->close();
}

bool Runtime::offer(const std::shared_ptr<ServiceProvider>& provider) {
    const std::lock_guard lock(m_guard);
    if (m_worker != nullptr && !m_providesServices) {
        KYO_LOG(3, "Service " << provider->service().name
                              << " is not offered: the middleware was started for clients only");
        return false;
    }
    m_known.try_emplace(provider->key().service).first->second.name = provider->service().name;
    provider->offered = true;
    if (std::ranges::find(m_providers, provider) == m_providers.end()) {
        m_providers.push_back(provider);
    }
    for (const auto& sender : provider->senders) {
        sender->setSilent(m_silent.load(std::memory_order_relaxed));
    }
    applyOffer(*provider, Clock::now());
    return true;
}

void Runtime::applyOffer(const ServiceProvider& provider, Clock::time_point now) {
    if (m_network == nullptr || !m_providesServices) {
        return;
    }
    std::map<std::uint16_t, Protocols> eventgroups;
    for (const auto& sender : provider.senders) {
        sender->setSocket(m_network->events.socket);
        eventgroups[sender->eventgroup()].add(protocolOf(*sender));
    }
    m_network->discovery().server().offer(provider.key(), provider.service().minorVersion, eventgroups, now);
    wake();
}

Protocol Runtime::protocolOf(const EventSender& sender) const noexcept {
    return m_settings.eventsOverTcp ? Protocol::Tcp : sender.protocol();
}

void Runtime::stopOffer(const std::shared_ptr<ServiceProvider>& provider) {
    const std::lock_guard lock(m_guard);
    if (!provider->offered) {
        return;
    }
    provider->offered = false;
    if (m_network != nullptr) {
        m_network->discovery().server().withdraw(provider->key());
        wake();
    }
    for (const auto& sender : provider->senders) {
        sender->setSocket(nullptr);
    }
    std::erase(m_providers, provider);
}

// ---------------------------------------------------------------------------------------------- changes

void Runtime::logChange(const RemoteService& service, const char* what, const std::string& reason) {
    const auto known = m_known.find(service.key.service);
    ChangeLimit& limit = known == m_known.end() ? m_otherChanges : known->second.changes;
    if (const auto unlogged = limit.note(Clock::now())) {
        KYO_LOG(known == m_known.end() ? 7 : 5, "Service " << nameOf(service.key) << what
                                                           << toText(service.endpoints.front()) << reason
                                                           << more(*unlogged));
    }
}

void Runtime::serviceUp(const RemoteService& service) {
    m_routesVersion.fetch_add(1);
    logChange(service, " found at ", "");
}

void Runtime::serviceDown(const RemoteService& service, const char* reason) {
    m_routesVersion.fetch_add(1);
    logChange(service, " lost at ", std::string(": ") + reason);
}

void Runtime::offerUnusable(const ServiceKey& service, const Endpoint& peer, const char* reason) {
    counters().sdUnusable.add();
    const auto known = m_known.find(service.service);
    RateLimit& limit = known == m_known.end() ? m_otherUnusable : known->second.unusable;
    if (const auto unlogged = limit.note(Clock::now())) {
        KYO_LOG(known == m_known.end() ? 7 : 3, "The offer of service "
                                                    << nameOf(service) << " by " << toText(peer)
                                                    << " is ignored: " << reason << more(*unlogged));
    }
}

void Runtime::subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) {
    m_routesVersion.fetch_add(1);
    const auto unlogged = m_subscriptionChanges[eventgroup].note(Clock::now());
    const auto log = [&](int level, const char* what) {
        if (unlogged) {
            KYO_LOG(level, "Eventgroup " << hex(eventgroup.eventgroup) << " of service "
                                         << nameOf(eventgroup.service) << what << more(*unlogged));
        }
    };
    switch (state) {
        case SubscriptionState::Idle:
            log(7, ": not subscribed");
            if (m_network != nullptr) {
                for (auto& [group, users] : m_network->wantedGroups) {
                    users.erase(eventgroup);
                }
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

void Runtime::multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) {
    auto& groups = m_network->wantedGroups;
    if (groups.contains(group) || groups.size() < kMaxEventGroups) {
        groups[group].insert(eventgroup);
    }
}

void Runtime::subscriberChanged(const EventgroupKey& eventgroup, const Endpoint& receiver, bool subscribed) {
    if (const auto unlogged = m_subscriberChanges[eventgroup].note(Clock::now())) {
        KYO_LOG(5, "Eventgroup " << hex(eventgroup.eventgroup) << " of service " << nameOf(eventgroup.service)
                                 << (subscribed ? " is subscribed by " : " is no longer subscribed by ")
                                 << toText(receiver) << more(*unlogged));
    }
    for (const auto& provider : m_providers) {
        if (provider->key() != eventgroup.service) {
            continue;
        }
        for (const auto& sender : provider->senders) {
            if (sender->eventgroup() == eventgroup.eventgroup && protocolOf(*sender) == receiver.protocol) {
                subscribed ? sender->add(receiver, m_network->streams().client(receiver))
                           : sender->remove(receiver);
                m_notices.push_back({sender, receiver, subscribed});
            }
        }
    }
}

void Runtime::subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) {
    subscriberChanged(eventgroup, receiver, true);
}

void Runtime::subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) {
    subscriberChanged(eventgroup, receiver, false);
}

void Runtime::peerRebooted(const Endpoint& peer) {
    counters().sdReboots.add();
    m_network->streams().reset(peer.address);
    if (const auto unlogged = m_reboots.note(Clock::now())) {
        KYO_LOG(5, "Peer " << toText(peer) << " has rebooted" << more(*unlogged));
    }
}

void Runtime::notify(std::vector<Notice>& notices, const std::atomic<bool>* stop) {
    for (const Notice& notice : notices) {
        if (stop != nullptr && stop->load(std::memory_order_relaxed)) {
            break;
        }
        notice.sender->notify(notice.receiver, notice.subscribed);
    }
    notices.clear();
}

// ---------------------------------------------------------------------------------------------- network

void Runtime::openNetwork(Clock::time_point now) {
    std::string error;
    m_network = NetworkAccess::open(m_settings, *this, error);
    if (m_network == nullptr) {
        m_retryAt = now + kOpenAgain;
        if (error != m_openFailure) {
            KYO_LOG(3, "SOME/IP is not up, trying again: " << error);
            m_openFailure = error;
        } else {
            KYO_LOG(7, "SOME/IP is still not up: " << error);
        }
        return;
    }
    m_openFailure.clear();
    m_networkIsUp.store(true, std::memory_order_relaxed);
    m_routesVersion.fetch_add(1);
    for (const ServiceKey& search : m_searches) {
        m_network->discovery().client().want(search, now);
    }
    for (const auto& receiver : m_receivers) {
        m_network->discovery().client().wantEventgroup(receiver->eventgroup(), receiver->protocol(), now);
    }
    for (const auto& provider : m_providers) {
        applyOffer(*provider, now);
    }
}

void Runtime::closeNetwork(bool sayGoodBye) {
    if (m_network == nullptr) {
        return;
    }
    m_network->discovery().shutdown();
    if (sayGoodBye) {
        std::string error;
        m_network->flush(m_silent.load(std::memory_order_relaxed), error);
    }
    for (const auto& provider : m_providers) {
        for (const auto& sender : provider->senders) {
            sender->setSocket(nullptr);
        }
    }
    m_network.reset();
    m_refused.clear();
    m_routesVersion.fetch_add(1);
    m_networkIsUp.store(false, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------- thread

void Runtime::work(Worker& worker) {
    ::pthread_setname_np(::pthread_self(), "someip");
    DatagramBatch batch;
    EventDispatcher dispatcher(worker.limits, worker.stop);
    std::shared_ptr<NetworkAccess> network;
    std::uint64_t routesSeen = 0;
    auto deadline = step(worker, batch, network);
    while (!worker.stop.load()) {
        const auto ready = worker.loop.wait(std::min(deadline, dispatcher.nextDeadline()));
        // Discovery before events: it decides which peers may send them, and must not wait for slow handlers.
        const bool discovery =
            ready.woken || std::ranges::any_of(ready.descriptors, [&](int fd) {
                return network != nullptr && (network->isDiscovery(fd) || network->streams().isChange(fd));
            });
        if (discovery || Clock::now() >= deadline) {
            deadline = step(worker, batch, network);
            refreshRoutes(dispatcher, routesSeen);
        }
        if (network == nullptr) {
            continue;
        }
        for (const int fd : ready.descriptors) {
            if (auto* const inlet = network->eventInlet(fd)) {
                receiveEvents(*network, *inlet, batch, dispatcher, routesSeen);
            } else if (!receiveStream(*network, fd, dispatcher, routesSeen)) {
                deadline = Clock::now();
            }
        }
        dispatcher.onTime(Clock::now());
    }
}

Clock::time_point Runtime::step(Worker& worker, DatagramBatch& batch,
                                std::shared_ptr<NetworkAccess>& network) {
    std::vector<Notice> notices;
    auto deadline = Clock::time_point::max();
    {
        const std::lock_guard lock(m_guard);
        if (worker.stop.load()) {
            return deadline;
        }
        const auto now = Clock::now();
        if (m_network == nullptr && now >= m_retryAt) {
            openNetwork(now);
        }
        if (m_network != nullptr) {
            auto& discovery = m_network->discovery();
            m_network->streams().accept(worker.loop, discovery.server(), now);
            receiveDiscovery(m_network->discoveryUnicast, false, batch, now);
            receiveDiscovery(m_network->discoveryGroup, true, batch, now);
            m_network->streams().maintain(worker.loop, discovery.client(), discovery.server(), now);
            discovery.onTime(now);
            std::string error;
            if (!m_network->flush(m_silent.load(std::memory_order_relaxed), error)) {
                KYO_LOG(3, "SOME/IP is not up any more: " << error);
                closeNetwork(false);
                m_openFailure.clear();
                m_retryAt = now + kOpenAgain;
            }
        }
        if (network != m_network) {
            if (network != nullptr) {
                worker.loop.unwatch(network->events.socket->fd());
                worker.loop.unwatch(network->discoveryUnicast.socket->fd());
                worker.loop.unwatch(network->discoveryGroup.socket->fd());
                network->streams().unwatch(worker.loop);
            }
            network = m_network;
            if (network != nullptr) {
                worker.loop.watch(network->events.socket->fd());
                worker.loop.watch(network->discoveryUnicast.socket->fd());
                worker.loop.watch(network->discoveryGroup.socket->fd());
                network->streams().watch(worker.loop);
            }
        }
        if (network != nullptr) {
            joinGroups(*network, worker);
        }
        deadline = m_network == nullptr
                       ? m_retryAt
                       : std::min(m_network->discovery().nextDeadline(), m_network->streams().nextDeadline());
        notices.swap(m_notices);
    }
    notify(notices, &worker.stop);
    return deadline;
}

void Runtime::receiveDiscovery(NetworkAccess::Inlet& inlet, bool group, DatagramBatch& batch,
                               Clock::time_point now) {
    for (int round = 0; round < kDiscoveryBatches; ++round) {
        const std::size_t count = batch.receive(*inlet.socket);
        for (std::size_t i = 0; i < count; ++i) {
            const Endpoint from = batch.from(i);
            if (!m_network->range().contains(from.address)) {
                counters().sdForeign.add();
                if (const auto unlogged = m_sdForeign.note(now)) {
                    KYO_LOG(3, "Service discovery from " << toText(from) << " is not heard: it is outside of "
                                                         << m_settings.network << " (" << *unlogged
                                                         << " more since the last such message)");
                }
                continue;
            }
            counters().sdReceived.add();
            std::string error;
            if (!m_network->discovery().onDatagram(from, group, batch.bytes(i), now, error)) {
                counters().sdMalformed.add();
                if (const auto unlogged = m_sdMalformed.note(now)) {
                    KYO_LOG(3, "Malformed service discovery from " << toText(from) << ": " << error << " ("
                                                                   << *unlogged
                                                                   << " more since the last such message)");
                }
            }
        }
        countDropped(inlet, batch);
        if (count < DatagramBatch::kDatagrams) {
            return;
        }
    }
}

void Runtime::refreshRoutes(EventDispatcher& dispatcher, std::uint64_t& routesSeen) {
    if (m_routesVersion.load() == routesSeen) {
        return;
    }
    std::vector<EventDispatcher::Route> fresh;
    {
        const std::lock_guard lock(m_guard);
        routesSeen = m_routesVersion.load();
        fresh = routes();
    }
    // Outside the lock: the last route to a released receiver destroys its handler and what the handler owns.
    dispatcher.setRoutes(fresh);
}

void Runtime::receiveEvents(NetworkAccess& network, NetworkAccess::Inlet& inlet, DatagramBatch& batch,
                            EventDispatcher& dispatcher, std::uint64_t& routesSeen) {
    refreshRoutes(dispatcher, routesSeen);
    const std::size_t count = batch.receive(*inlet.socket);
    const auto now = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        if (network.range().contains(batch.from(i).address)) {
            dispatcher.onDatagram(batch.from(i), batch.bytes(i), now);
        } else {
            counters().datagrams.add();
            counters().wrongPeer.add();
        }
    }
    countDropped(inlet, batch);
}

bool Runtime::receiveStream(NetworkAccess& network, int fd, EventDispatcher& dispatcher,
                            std::uint64_t& routesSeen) {
    refreshRoutes(dispatcher, routesSeen);
    const auto now = Clock::now();
    return network.streams().receive(fd, [&](const Endpoint& server, std::span<const std::uint8_t> message) {
        dispatcher.onDatagram(server, message, now);
    });
}

void Runtime::joinGroups(NetworkAccess& network, const Worker& worker) {
    for (auto wanted = network.wantedGroups.begin(); wanted != network.wantedGroups.end();) {
        const auto joined = network.joinedGroups.find(wanted->first);
        if (wanted->second.empty()) {
            if (joined != network.joinedGroups.end()) {
                if (joined->second.socket != nullptr) {
                    worker.loop.unwatch(joined->second.socket->fd());
                }
                network.joinedGroups.erase(joined);
            }
            wanted = network.wantedGroups.erase(wanted);
            continue;
        }
        if (joined == network.joinedGroups.end()) {
            UdpSocket::Options options;
            options.receiveBufferBytes = network.events.socket->receiveBufferBytes();
            options.shared = true;
            options.join = true;
            options.interfaceAddress = network.eventEndpoint().address;
            std::string error;
            auto& inlet = network.joinedGroups[wanted->first];
            inlet.socket = UdpSocket::open(wanted->first, options, error);
            if (inlet.socket != nullptr) {
                worker.loop.watch(inlet.socket->fd());
            }
            if (const auto unlogged = m_groupChanges.note(Clock::now())) {
                if (inlet.socket != nullptr) {
                    KYO_LOG(5, "Events come by multicast to " << toText(wanted->first) << more(*unlogged));
                } else {
                    KYO_LOG(3, "Events by multicast cannot be received: " << error << more(*unlogged));
                }
            }
        }
        ++wanted;
    }
}

void Runtime::countDropped(NetworkAccess::Inlet& inlet, const DatagramBatch& batch) {
    std::uint32_t total = 0;
    if (batch.droppedBySystem(total) && total != inlet.dropped) {
        counters().kernelDropped.add(total - inlet.dropped);
        inlet.dropped = total;
    }
}

}  // namespace someip
