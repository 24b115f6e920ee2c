#pragma once
/// The events that vehicles report, as the generator knows them from interfaces/: what a sample may hold, and
/// what its members mean.
#include <cstdint>
#include <span>
#include <string_view>

namespace vlmBackend {

enum class Kind : std::uint8_t { Boolean, Integer, Unsigned64, Real, Text };

struct EventField {
    std::string_view name;    ///< member of a sample's "propertyValuePairs"
    std::string_view column;  ///< its column in the event's view
    Kind kind;
    std::string_view unit;     ///< SI symbol; empty: none
    std::string_view meaning;  ///< one sentence
};

struct Event {
    std::string_view service;   ///< name in the registry: "GNSSProxy"
    std::string_view resource;  ///< "positions"
    std::string_view view;      ///< "gnss_positions"
    std::string_view summary;   ///< one sentence
    std::span<const EventField> fields;

    const EventField* field(std::string_view name) const;
};

/// All events, sorted by service and resource. Lives as long as the process.
std::span<const Event> events();
const Event* findEvent(std::string_view service, std::string_view resource);
const Event* findView(std::string_view view);

}  // namespace vlmBackend
