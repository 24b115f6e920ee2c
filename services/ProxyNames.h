#pragma once
/// The names of the vehicle services' proxies, the registry's keys. Each registered service's constant is
/// generated from its description; the names without an adapter are here.
#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "services/adapters/RegisteredNames.h"

namespace vlmProd::proxyNames {

inline constexpr std::string_view kSuffix = "Proxy";

inline constexpr std::string_view ManeuverAssistProxy = "ManeuverAssistProxy";
inline constexpr std::string_view SmartChargingStatisticSyncProxy = "SmartChargingStatisticSyncProxy";
inline constexpr std::string_view DisplaySpeedProxy = "DisplaySpeedProxy";
/// The registry knows this service as RouterBasedConsumptionProxy.
inline constexpr std::string_view RouteBasedConsumptionProxy = "RouteBasedConsumptionProxy";

inline constexpr std::array unregistered = {ManeuverAssistProxy, SmartChargingStatisticSyncProxy,
                                            DisplaySpeedProxy, RouteBasedConsumptionProxy};

/// The registered names in the registry's order, then the others.
inline constexpr auto all = [] {
    std::array<std::string_view, registered.size() + unregistered.size()> names;
    std::copy(unregistered.begin(), unregistered.end(),
              std::copy(registered.begin(), registered.end(), names.begin()));
    return names;
}();

/// Returns the registry's key of a service that the catalog and the collector configuration name:
/// "GNSSProxy" of "GNSS".
inline std::string of(const std::string& service) {
    return service + std::string(kSuffix);
}

}  // namespace vlmProd::proxyNames
