#pragma once
/// What goes wrong on request, by command or at a time.
#include <string>
#include <vector>

#include "com/Skeleton.h"

namespace vlmVehicle {

struct Fault {
    enum Kind {
        Wire,     ///< `count` notifications of the event go out with `wire`
        Silence,  ///< nothing is sent for `seconds` (0: until "speak")
        Speak,    ///< ends a silence
        Stop,     ///< the service says stop-offer
        Offer,    ///< the service is offered again
        Restart,  ///< the process starts anew, without a stop-offer
    };
    Kind kind = Wire;
    std::string service = "*";  ///< or one name
    std::string event = "*";
    someip::WireFault::Kind wire = someip::WireFault::TruncatedStructure;
    int count = 1;
    double seconds = 0;
    double at = -1;    ///< s since the vehicle started; negative: at once
    std::string text;  ///< as it was given

    /// "KIND", "KIND EVENT" or "KIND EVENT NUMBER", where EVENT is "*", "Service" or "Service.event" and
    /// NUMBER is how many notifications (of a wire fault) or how many seconds (of silence).
    static bool parse(const std::string& text, Fault& out, std::string& error);
    /// The same with "SECONDS:" before it.
    static bool parseTimed(const std::string& text, Fault& out, std::string& error);

    bool concerns(const std::string& serviceName, const std::string& eventName) const {
        return (service == "*" || service == serviceName) && (event == "*" || event == eventName);
    }
};

/// The words that a fault may begin with.
const std::vector<std::string>& faultWords();

}  // namespace vlmVehicle
