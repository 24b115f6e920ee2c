#pragma once
/// Rules that compute the fields of events from the drive model.
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "qdr/services/described.h"
#include "tools/vehicle/DriveModel.h"

namespace vlmVehicle {

/// The input of a rule.
struct Moment {
    const VehicleState& state;
    const Controls& controls;
    const qdr::services::FieldInfo& field;
    int key = 0;               ///< key value of the sample, or the value of an unkeyed event's first member
    std::string keyName;       ///< its enumerator
    std::uint64_t wallMs = 0;  ///< wall clock, ms since 1970
    std::uint64_t count = 0;   ///< samples of this event with this key so far

    bool is(const char* name) const { return keyName == name; }
};

/// A field's value: a number, a boolean, an enumerator's name or a text. `quality` is the enumerator of the
/// accompanying `...ValueType` field.
struct Reading {
    std::variant<double, std::uint64_t, bool, std::string> value;
    std::string quality = "valid";

    Reading(double number) : value(number) {}                    // NOLINT: rules return plain values
    Reading(int number) : value(static_cast<double>(number)) {}  // NOLINT
    Reading(std::uint64_t number) : value(number) {}             // NOLINT
    Reading(bool truth) : value(truth) {}                        // NOLINT
    Reading(const char* name) : value(std::string(name)) {}      // NOLINT
    Reading(std::string name) : value(std::move(name)) {}        // NOLINT
    Reading(double number, std::string howGood) : value(number), quality(std::move(howGood)) {}
};

/// A value that is not available now.
inline Reading notAvailable(double standIn = 0) {
    return {standIn, "notAvailable"};
}

using Rule = std::function<Reading(const Moment&)>;
/// Returns the enumerators to send, one sample each: of the key, or of an unkeyed event's first member.
using KeysRule = std::function<std::vector<std::string>(const VehicleState&)>;

class RuleBook {
  public:
    /// All rules of this program.
    static const RuleBook& standard();

    void add(const std::string& event, std::initializer_list<std::pair<const char*, Rule>> fields);
    void keys(const std::string& event, KeysRule rule) { m_keys[event] = std::move(rule); }

    /// nullptr without a rule. `event` is "Service.event".
    const Rule* rule(const std::string& event, const std::string& field) const;
    const KeysRule* keysRule(const std::string& event) const;
    /// "Service.event.field" of every rule.
    std::vector<std::string> names() const;

  private:
    std::map<std::string, Rule> m_rules;
    std::map<std::string, KeysRule> m_keys;
};

void addDrivingRules(RuleBook& book);
void addEnergyRules(RuleBook& book);
void addBodyRules(RuleBook& book);
void addAssistanceRules(RuleBook& book);

/// s until the car hits the one ahead; negative when it does not approach.
double timeToCollision(const VehicleState& state);

}  // namespace vlmVehicle
