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

/// Stores a new version; in a transaction of its own, as the other functions that change something. Throws
/// ConfigurationError for a name that is empty, longer than 64 bytes or not printable.
Configuration addConfiguration(Sql& sql, const std::string& name, const std::string& text,
                               const std::string& user, std::int64_t nowMs);
/// All, the newest first, without their texts.
std::vector<Configuration> configurations(Sql& sql);
std::optional<Configuration> configuration(Sql& sql, std::int64_t id);

/// Throws ConfigurationError for an unknown vehicle or configuration, and unless exactly one of vehicle and
/// group is named.
void assign(Sql& sql, const Assignment& assignment, const std::string& user, std::int64_t nowMs);
std::vector<Assignment> assignments(Sql& sql);
/// Empty: none. Throws ConfigurationError for an unknown vehicle.
void setGroup(Sql& sql, const std::string& vehicle, const std::string& group);

/// What the vehicle is to have, whether it was sent or not.
std::optional<Due> desiredOf(Sql& sql, const std::string& vehicle);
/// The same, unless the vehicle has said what became of it: to be sent when it returns.
std::optional<Due> openOf(Sql& sql, const std::string& vehicle);
/// Of the vehicles that are online, what each is to have and was not sent last; without the texts.
std::vector<Due> unsent(Sql& sql);

/// Inside a transaction.
void noteSent(Sql& sql, const Due& due, std::int64_t nowMs);
/// The "configurations" of a health message. Inside a transaction.
void noteStates(Sql& sql, std::int64_t vehicle, const kyo::Json::Value& states, std::int64_t nowMs);

/// Differ from earlier ones when what vehicles are to have, or what became of it, has changed.
struct ChangeCounts {
    std::int64_t desired = 0;
    std::int64_t deliveries = 0;
    bool operator==(const ChangeCounts&) const = default;
};
ChangeCounts changeCounts(Sql& sql);

}  // namespace vlmBackend::store
