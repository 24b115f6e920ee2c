#include "someip/Runtime.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
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
    m_offers = providesServices;
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
    m_server.set({m_offers, settings.eventsOverTcp});
    openNetwork(Clock::now());
    return true;
}

void Runtime::stop(std::chrono::milliseconds limit) {
    std::shared_ptr<Worker> worker;
    std::vector<ServerSide::Notice> notices;
    {
        const std::lock_guard lock(m_guard);
        if (m_worker == nullptr) {
            return;
        }
        worker = std::move(m_worker);
        m_worker = nullptr;
        worker->stop.store(true);
        closeNetwork(true);
        m_server.set({});
        notices = m_server.takeNotices();
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
    m_server.setSilent(silent);
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

// ---------------------------------------------------------------------------------------------- clients

std::vector<ServiceKey> Runtime::findService(const ac::com::ServiceInterface& service,
                                             std::uint16_t instance) {
    const std::lock_guard lock(m_guard);
    m_services.add(service);
    auto found = m_client.find({service.serviceId, instance, service.majorVersion}, Clock::now());
    wake();
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
    m_services.add(service);
    m_client.add(receiver, Clock::now());
    wake();
    return receiver;
}

void Runtime::release(const std::shared_ptr<EventReceiver>& receiver) {
    {
        const std::lock_guard lock(m_guard);
        m_client.remove(receiver);
        wake();
    }
    receiver->close();
}

SubscriptionState Runtime::subscriptionState(const EventgroupKey& eventgroup) const {
    const std::lock_guard lock(m_guard);
    return m_client.state(eventgroup);
}

// ---------------------------------------------------------------------------------------------- servers

std::shared_ptr<EventSender> Runtime::addEvent(const std::shared_ptr<ServiceProvider>& provider,
                                               const ac::com::EventInterface& event) {
    const std::lock_guard lock(m_guard);
    auto sender = m_server.addEvent(*provider, event, Clock::now());
    wake();
    return sender;
}

void Runtime::removeEvent(const std::shared_ptr<ServiceProvider>& provider,
                          const std::shared_ptr<EventSender>& sender) {
    {
        const std::lock_guard lock(m_guard);
        m_server.removeEvent(*provider, sender, Clock::now());
        wake();
    }
    sender->close();
}

bool Runtime::offer(const std::shared_ptr<ServiceProvider>& provider) {
    const std::lock_guard lock(m_guard);
    const bool offered = m_server.offer(provider, Clock::now());
    wake();
    return offered;
}

void Runtime::stopOffer(const std::shared_ptr<ServiceProvider>& provider) {
    const std::lock_guard lock(m_guard);
    m_server.stopOffer(provider);
    wake();
}

// ---------------------------------------------------------------------------------------------- network

void Runtime::openNetwork(Clock::time_point now) {
    std::string error;
    m_retryAt = now + kOpenAgain;
    m_network = NetworkAccess::open(m_settings, m_offers, {m_client, m_server, *this}, error);
    if (m_network == nullptr) {
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
    m_client.attach(m_network.get(), now);
    m_server.attach(m_network.get(), now);
}

void Runtime::closeNetwork(bool notifiesPeers) {
    if (m_network == nullptr) {
        return;
    }
    m_network->discovery().shutdown();
    if (notifiesPeers) {
        std::string error;
        m_network->flush(m_silent.load(std::memory_order_relaxed), error);
    }
    m_client.attach(nullptr, Clock::now());
    m_server.attach(nullptr, Clock::now());
    m_network.reset();
    m_networkIsUp.store(false, std::memory_order_relaxed);
}

void Runtime::peerRebooted(const Endpoint& peer) {
    counters().sdReboots.add();
    m_network->reset(peer);
    if (const auto unlogged = m_reboots.note(Clock::now())) {
        KYO_LOG(5, "Peer " << toText(peer) << " has rebooted" << more(*unlogged));
    }
}

// ---------------------------------------------------------------------------------------------- thread

void Runtime::work(Worker& worker) {
    ::pthread_setname_np(::pthread_self(), "someip");
    EventDispatcher dispatcher(worker.limits, worker.stop);
    std::shared_ptr<NetworkAccess> network;
    std::uint64_t routesSeen = 0;
    auto now = Clock::now();
    const Inlet::Take take = [&](const Endpoint& from, std::span<const std::uint8_t> bytes) {
        dispatcher.onDatagram(from, bytes, now);
    };
    auto deadline = step(worker, network);
    while (!worker.stop.load()) {
        const auto ready = worker.loop.wait(std::min(deadline, dispatcher.nextDeadline()));
        // Discovery before events: it decides which peers may send them, and must not wait for slow handlers.
        const bool control = ready.woken || std::ranges::any_of(ready.descriptors, [&](int fd) {
                                 return network != nullptr && network->isControl(fd);
                             });
        if (control || Clock::now() >= deadline) {
            deadline = step(worker, network);
            refreshRoutes(dispatcher, routesSeen);
        }
        if (network == nullptr) {
            continue;
        }
        for (const int fd : ready.descriptors) {
            refreshRoutes(dispatcher, routesSeen);
            now = Clock::now();
            auto* const inlet = network->inlet(fd);
            if (inlet != nullptr && !inlet->receive(take)) {
                deadline = now;
            }
        }
        dispatcher.onTime(Clock::now());
    }
}

/// Everything but events: discovery, connections, timers. Returns when it is due again.
Clock::time_point Runtime::step(Worker& worker, std::shared_ptr<NetworkAccess>& network) {
    std::vector<ServerSide::Notice> notices;
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
            handleDiscovery(worker, now);
        }
        if (network != m_network) {
            if (network != nullptr) {
                network->unwatch(worker.loop);
            }
            network = m_network;
            if (network != nullptr) {
                network->watch(worker.loop);
            }
        }
        deadline = network == nullptr ? m_retryAt : network->nextDeadline();
        notices = m_server.takeNotices();
    }
    notify(notices, &worker.stop);
    return deadline;
}

void Runtime::handleDiscovery(const Worker& worker, Clock::time_point now) {
    m_network->accept(worker.loop, now);
    receiveDiscovery(m_network->unicastDiscovery(), false, now);
    receiveDiscovery(m_network->groupDiscovery(), true, now);
    m_network->maintain(worker.loop, now);
    m_network->discovery().onTime(now);
    std::string error;
    if (!m_network->flush(m_silent.load(std::memory_order_relaxed), error)) {
        KYO_LOG(3, "SOME/IP is not up any more: " << error);
        closeNetwork(false);
        m_openFailure.clear();
    }
}

void Runtime::receiveDiscovery(DatagramReader& reader, bool group, Clock::time_point now) {
    const auto take = [&](const Endpoint& from, std::span<const std::uint8_t> bytes) {
        if (!m_network->range().contains(from.address)) {
            counters().sdForeign.add();
            if (const auto unlogged = m_sdForeign.note(now)) {
                KYO_LOG(3, "Service discovery from " << toText(from) << " is not heard: it is outside of "
                                                     << m_settings.network << " (" << *unlogged
                                                     << " more since the last such message)");
            }
            return;
        }
        counters().sdReceived.add();
        std::string error;
        if (!m_network->discovery().onDatagram(from, group, bytes, now, error)) {
            counters().sdMalformed.add();
            if (const auto unlogged = m_sdMalformed.note(now)) {
                KYO_LOG(3, "Malformed service discovery from " << toText(from) << ": " << error << " ("
                                                               << *unlogged
                                                               << " more since the last such message)");
            }
        }
    };
    for (int round = 0; round < kDiscoveryBatches && reader.read(take); ++round) {
    }
}

void Runtime::refreshRoutes(EventDispatcher& dispatcher, std::uint64_t& routesSeen) {
    if (m_client.routesVersion() == routesSeen) {
        return;
    }
    std::vector<EventDispatcher::Route> fresh;
    {
        const std::lock_guard lock(m_guard);
        routesSeen = m_client.routesVersion();
        fresh = m_client.routes();
    }
    // Outside the lock: the last route to a released receiver destroys its handler and what the handler owns.
    dispatcher.setRoutes(fresh);
}

void Runtime::notify(const std::vector<ServerSide::Notice>& notices, const std::atomic<bool>* stop) {
    for (const ServerSide::Notice& notice : notices) {
        if (stop != nullptr && stop->load(std::memory_order_relaxed)) {
            break;
        }
        notice.sender->notify(notice.receiver, notice.subscribed);
    }
}

}  // namespace someip
