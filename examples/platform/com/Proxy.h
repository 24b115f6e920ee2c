#pragma once
/// Proxies of a platform whose vehicle is an object in the same process: Vehicle.
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ac/com/types.h"

namespace vlmTest {

/// It offers every service. Any thread.
class Vehicle {
  public:
    static Vehicle& instance() {
        static auto* const vehicle = new Vehicle;
        return *vehicle;
    }

    void receive(const ac::com::ServiceInterface& service, const ac::com::EventInterface& event,
                 std::function<void(const void*)> handler) {
        const std::lock_guard lock(m_guard);
        m_handlers[{service.serviceId, event.eventId}] = std::move(handler);
    }
    /// Delivers on the calling thread, which plays the middleware's. Returns false without a subscriber.
    template <typename DT>
    bool send(const ac::com::ServiceInterface& service, const ac::com::EventInterface& event,
              const std::vector<DT>& samples) const {
        std::function<void(const void*)> handler;
        {
            const std::lock_guard lock(m_guard);
            const auto found = m_handlers.find({service.serviceId, event.eventId});
            if (found == m_handlers.end()) {
                return false;
            }
            handler = found->second;
        }
        handler(&samples);
        return true;
    }

  private:
    mutable std::mutex m_guard;  ///< guards m_handlers; not locked while a handler runs
    std::map<std::pair<std::uint16_t, std::uint16_t>, std::function<void(const void*)>> m_handlers;
};

}  // namespace vlmTest

namespace ac::com {

inline HandleContainer findService(const ServiceInterface& service, const std::string& /*instance*/) {
    return {{service.serviceId, 1, service.majorVersion}};
}

class ProxyBase {
  public:
    ProxyBase(const ServiceInterface& service, const ServiceHandle& /*handle*/) : m_service(service) {}
    ProxyBase(const ProxyBase&) = delete;
    ProxyBase& operator=(const ProxyBase&) = delete;

    const ServiceInterface& serviceInterface() const { return m_service; }

  private:
    const ServiceInterface m_service;
};

template <typename DT>
class ProxyEvent {
  public:
    using ReceiveHandler = std::function<void(std::vector<DT>)>;

    ProxyEvent(ProxyBase& owner, const EventInterface& event) : m_owner(owner), m_event(event) {}

    bool Subscribe(ReceiveHandler handler) {
        vlmTest::Vehicle::instance().receive(m_owner.serviceInterface(), m_event,
                                             [call = std::move(handler)](const void* samples) {
                                                 call(*static_cast<const std::vector<DT>*>(samples));
                                             });
        return true;
    }

  private:
    ProxyBase& m_owner;
    const EventInterface m_event;
};

}  // namespace ac::com
