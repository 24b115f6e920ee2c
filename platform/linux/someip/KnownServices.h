#pragma once
#include <map>
#include <string>

#include "ac/com/types.h"
#include "someip/RateLimit.h"
#include "someip/ServiceDiscovery.h"

namespace someip {

/// The services that this process requests or offers: their names for the log, and what limits its lines.
/// Guarded by the runtime's lock.
class KnownServices {
  public:
    struct Service {
        std::string name;
        ChangeLimit changes;
        RateLimit unusable;
    };

    void add(const ac::com::ServiceInterface& service) {
        m_services.try_emplace(service.serviceId).first->second.name = service.name;
    }
    /// Returns nullptr for a service that this process does not know.
    Service* find(std::uint16_t service) {
        const auto found = m_services.find(service);
        return found == m_services.end() ? nullptr : &found->second;
    }
    /// "GNSS (0x0101, instance 1, version 1)"; without the name if it is not known.
    std::string describe(const ServiceKey& service);
    /// "Eventgroup 0x0001 of service GNSS (0x0101, instance 1, version 1)"
    std::string describe(const EventgroupKey& eventgroup);

  private:
    std::map<std::uint16_t, Service> m_services;
};

}  // namespace someip
