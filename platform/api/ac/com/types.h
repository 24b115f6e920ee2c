#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace ac::com {

/// Identifies a service's interface on the wire. Generated per service.
struct ServiceInterface {
    const char* name;  ///< "GNSS"
    std::uint16_t serviceId;
    std::uint8_t majorVersion;
    std::uint32_t minorVersion;
};

/// Identifies an event on the wire. Generated per event.
struct EventInterface {  // NOLINT(cppcoreguidelines-pro-type-member-init): an aggregate
    const char* name;    ///< "positions"
    std::uint16_t eventId;
    std::uint16_t eventgroupId;
    bool reliable = false;  ///< sent over TCP
};

/// One instance of a service that was found.
struct ServiceHandle {
    std::uint16_t serviceId = 0;
    std::uint16_t instanceId = 0;
    std::uint8_t majorVersion = 0;
};

using HandleContainer = std::vector<ServiceHandle>;

}  // namespace ac::com
