#pragma once
/// The server side: an offered instance and its events.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ac/com/types.h"
#include "someip/CallGate.h"
#include "someip/ServiceDiscovery.h"
#include "someip/Transport.h"
#include "someip/WireFault.h"

namespace someip {

/// One event of an offered service, with its subscribers. Any thread may send.
class EventSender {
  public:
    using SubscriptionHandler = std::function<void(const std::string& peer, bool subscribed)>;

    EventSender(const ac::com::ServiceInterface& service, const ac::com::EventInterface& event);

    std::uint16_t eventgroup() const noexcept { return m_event.eventgroupId; }
    /// The protocol of the description.
    Protocol protocol() const noexcept { return m_event.reliable ? Protocol::Tcp : Protocol::Udp; }

    /// Sends `message` to each subscriber; its first 16 bytes are reserved for the header. Returns false when
    /// a datagram, or a message over TCP, could not be sent. Blocks while a send buffer is full.
    bool send(std::span<std::uint8_t> message);
    bool sendFaulty(std::vector<std::uint8_t>& message, const WireFault& fault);

    std::size_t subscribers() const;
    void setHandler(SubscriptionHandler handler);
    /// Calls the subscription handler.
    void notify(const Endpoint& receiver, bool subscribed);
    /// The handler is not called afterwards. Waits for one that is running.
    void close() noexcept;

    /// Called by the server side: the subscribers, and the way to each.
    void add(const Endpoint& receiver, std::shared_ptr<Outlet> outlet);
    void remove(const Endpoint& receiver);
    /// Sends nothing while set, like a sender that has failed.
    void setSilent(bool silent) noexcept { m_silent.store(silent, std::memory_order_relaxed); }

  private:
    struct Receiver {
        Endpoint endpoint;
        std::shared_ptr<Outlet> outlet;
    };
    struct Target {
        std::vector<Receiver> receivers;  ///< one entry per subscription
        std::vector<Receiver> distinct;   ///< without duplicates
    };
    std::shared_ptr<const Target> target() const;
    void change(const std::function<void(Target&)>& how);
    Header header(std::uint16_t session) const noexcept;
    std::uint16_t nextSession() noexcept;
    bool transmit(const Header& header, std::span<std::uint8_t> message);

    const ac::com::ServiceInterface m_service;
    const ac::com::EventInterface m_event;
    std::atomic<std::uint32_t> m_session{0};
    std::atomic<bool> m_silent{false};
    CallGate m_gate;
    mutable std::mutex m_guard;  ///< guards the two below
    std::shared_ptr<const Target> m_target;
    std::shared_ptr<const SubscriptionHandler> m_handler;
};

/// One offered instance. All but the first group is guarded by the runtime's lock.
class ServiceProvider {
  public:
    ServiceProvider(const ac::com::ServiceInterface& service, std::uint16_t instance)
        : m_service(service), m_key{service.serviceId, instance, service.majorVersion} {}

    const ac::com::ServiceInterface& service() const noexcept { return m_service; }
    const ServiceKey& key() const noexcept { return m_key; }

    bool offered = false;
    std::vector<std::shared_ptr<EventSender>> senders;

  private:
    const ac::com::ServiceInterface m_service;
    const ServiceKey m_key;
};

}  // namespace someip
