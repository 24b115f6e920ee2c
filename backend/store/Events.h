#pragma once
/// The events that vehicles report, as the generator knows them from interfaces/: what a sample may hold, and
/// what its members mean.
#include <cstdint>
#include <span>
#include <string_view>

namespace vlmBackend {

enum class Kind : std::uint8_t { Boolean, Integer, Unsigned64, Real, Text };

/// One value of an enumeration.
struct NamedValue {
    std::int64_t value;
    std::string_view name;
};

/// An instance of an event that can be collected.
struct EventIndex {
    std::int64_t value;        ///< of the member that selects the instance
    std::string_view name;     ///< in its enumeration; may be empty
    std::string_view meaning;  ///< may be empty
};

struct EventField {
    std::string_view name;    ///< member of a sample's "propertyValuePairs"
    std::string_view column;  ///< its column in the event's view
    Kind kind;
    std::string_view unit;               ///< SI symbol; empty: none
    std::string_view meaning;            ///< one sentence
    std::span<const NamedValue> values;  ///< of an enumeration; empty for other fields
};

struct Event {
    std::string_view service;         ///< name in the registry: "GNSSProxy"
    std::string_view catalogService;  ///< name in the signal catalog: "GNSS"
    std::string_view resource;        ///< "positions"
    std::string_view view;            ///< "gnss_positions"
    std::string_view summary;         ///< one sentence
    std::span<const EventIndex> indexes;
    std::span<const EventField> fields;

    const EventField* field(std::string_view name) const;
};

/// All events, sorted by service and resource. Lives as long as the process.
std::span<const Event> events();
const Event* findEvent(std::string_view service, std::string_view resource);
const Event* findView(std::string_view view);

}  // namespace vlmBackend
