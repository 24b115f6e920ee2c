#pragma once
/// What is watched: "SERVICE[.event][:index]".
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qdr/services/described.h"

namespace vlmWatch {

using Services = std::vector<std::unique_ptr<qdr::services::DescribedService>>;

/// All described services, ascending by name; none is offered.
Services describedServices();

/// One event that is watched, and which of its samples.
struct Selected {
    qdr::services::DescribedService* service;
    qdr::services::DescribedEvent* event;
    std::set<std::int64_t> indexes;  ///< empty: all

    /// "GNSS.positions"
    std::string path() const { return service->name() + "." + event->name(); }
    bool takes(std::optional<std::int64_t> index) const {
        return indexes.empty() || (index && indexes.contains(*index));
    }
};

/// Reads the selections; without one, everything is selected. Case does not matter, a service may have the
/// "Proxy" of configurations after its name, and an index is a number or its name. Each event is there once,
/// in the order of first mention. Throws std::runtime_error with the selection, the reason and near names.
std::vector<Selected> select(const std::vector<std::string>& texts, const Services& services);

}  // namespace vlmWatch
