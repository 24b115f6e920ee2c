#pragma once
/// Faults on request, by command or at a given time.
#include <string>
#include <vector>

#include "com/Skeleton.h"

namespace vlmVehicle {

struct Fault {
    enum Kind {
        Wire,     ///< the next `count` notifications of the event have the error `wire`
        Silence,  ///< sends nothing for `seconds` (0: until "speak")
        Speak,    ///< ends a silence
        Stop,     ///< sends stop-offer for the service
        Offer,    ///< offers the service again
        Restart,  ///< restarts the process without a stop-offer
    };
    Kind kind = Wire;
    std::string service = "*";  ///< or one name
    std::string event = "*";
    someip::WireFault::Kind wire = someip::WireFault::TruncatedStructure;
    int count = 1;
    double seconds = 0;
    double at = -1;    ///< s since the vehicle started; negative: at once
    std::string text;  ///< as given by the user

    /// Parses "KIND", "KIND EVENT" or "KIND EVENT NUMBER". EVENT is "*", "Service" or "Service.event"; NUMBER
    /// is the number of notifications (wire faults) or seconds (silence).
    static bool parse(const std::string& text, Fault& out, std::string& error);
    /// As parse(), with "SECONDS:" in front.
    static bool parseTimed(const std::string& text, Fault& out, std::string& error);

    bool concerns(const std::string& serviceName, const std::string& eventName) const {
        return (service == "*" || service == serviceName) && (event == "*" || event == eventName);
    }
};

/// The possible first words of a fault.
const std::vector<std::string>& faultWords();

}  // namespace vlmVehicle
