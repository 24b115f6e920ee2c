#pragma once
/// Collector configurations with their versions, which vehicles and groups are to have which one, and what
/// became of that at each vehicle. All functions throw DatabaseError.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backend/store/Sql.h"
#include "kyo/Json.h"

namespace vlmBackend::store {

/// A request that cannot be met; the message names what is wrong with it.
struct ConfigurationError : std::runtime_error {
    enum class Cause : std::uint8_t { Unknown, Unfit };
    ConfigurationError(Cause why, const std::string& text) : std::runtime_error(text), cause(why) {}
    Cause cause;
};

struct Configuration {
    std::int64_t id = 0;
    std::string name;
    std::int64_t version = 0;  ///< from 1, per name
    std::string recordId;      ///< unique: name, version and the first digits of the text's SHA-256
    std::int64_t createdMs = 0;
    std::string user;
    std::string text;
};

/// For a vehicle or a group; the other name is empty.
struct Assignment {
    std::string vehicle;
    std::string group;
    std::optional<std::int64_t> configuration;  ///< id; nothing: none
};

/// A configuration to be sent.
struct Due {
    std::string prefix;
    std::int64_t vehicle = 0;
    Configuration configuration;
};

/// Stores a new version. Like assign() and setGroup(), it has a transaction of its own. Throws
/// ConfigurationError for a name that is empty, longer than 64 bytes or not printable.
Configuration addConfiguration(Sql& sql, const std::string& name, const std::string& text,
                               const std::string& user, std::int64_t nowMs);
/// Returns all without their texts, the newest first.
std::vector<Configuration> configurations(Sql& sql);
std::optional<Configuration> configuration(Sql& sql, std::int64_t id);

/// Throws ConfigurationError for an unknown vehicle or configuration, and unless exactly one of vehicle and
/// group is named.
void assign(Sql& sql, const Assignment& assignment, const std::string& user, std::int64_t nowMs);
std::vector<Assignment> assignments(Sql& sql);
/// An empty group: none. Throws ConfigurationError for an unknown vehicle.
void setGroup(Sql& sql, const std::string& vehicle, const std::string& group);

/// Returns the configuration that is assigned to the vehicle, whether it was sent or not.
std::optional<Due> desiredOf(Sql& sql, const std::string& vehicle);
/// Returns the same, unless the vehicle has reported its outcome: it is sent when the vehicle returns.
std::optional<Due> openOf(Sql& sql, const std::string& vehicle);
/// Returns the assigned configurations of the vehicles that are online and were not sent theirs last; without
/// the texts.
std::vector<Due> unsent(Sql& sql);

/// Call it inside a transaction.
void noteSent(Sql& sql, const Due& due, std::int64_t nowMs);
/// Stores the "configurations" of a health message. Call it inside a transaction.
void noteStates(Sql& sql, std::int64_t vehicle, const kyo::Json::Value& states, std::int64_t nowMs);

/// Increase when assigned configurations, or their outcomes at the vehicles, change.
struct ChangeCounts {
    std::int64_t desired = 0;
    std::int64_t deliveries = 0;
    bool operator==(const ChangeCounts&) const = default;
};
ChangeCounts changeCounts(Sql& sql);

}  // namespace vlmBackend::store
