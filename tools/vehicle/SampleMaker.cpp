#include "tools/vehicle/SampleMaker.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>

namespace vlmVehicle {

using qdr::services::DescribedEvent;
using qdr::services::FieldInfo;
using qdr::services::FieldValue;
using qdr::services::FieldValues;

namespace {

/// A value that changes slowly in the middle of the field's range, different for each field.
Reading plausible(const std::string& path, const FieldInfo& field, double time) {
    if (!field.enumerators.empty()) {
        return field.enumerators.front().name;
    }
    const std::string type = field.type;
    if (type == "bool") {
        return false;
    }
    if (type == "string") {
        return path;
    }
    const double low = field.hasRange ? std::max(field.minimum, -1000.0) : 0;
    const double high = field.hasRange ? std::min(field.maximum, 1000.0) : 100;
    const double phase = static_cast<double>(std::hash<std::string>()(path) % 1000);
    return low + (high - low) * (0.5 + 0.2 * std::sin((time + phase) / 60));
}

struct IntegerLimits {
    double low, high;
};

IntegerLimits limitsOf(const std::string& type) {
    if (type == "uint8") {
        return {0, 255};
    }
    if (type == "uint16") {
        return {0, 65535};
    }
    if (type == "uint32") {
        return {0, 4294967295.0};
    }
    if (type == "int8") {
        return {-128, 127};
    }
    if (type == "int16") {
        return {-32768, 32767};
    }
    if (type == "int32") {
        return {-2147483648.0, 2147483647};
    }
    return {type == "uint64" ? 0.0 : -9.007199254740992e15, 9.007199254740992e15};
}

/// Converts the value of an override. Returns false for null: the field is left out.
bool overridden(const kyo::Json::Value& value, const FieldInfo& field, FieldValue& out) {
    if (value.isNull()) {
        return false;
    }
    if (value.isString()) {
        out = value.asString();
    } else if (value.isBool()) {
        out = value.asBool();
    } else if (field.enumerators.empty() &&
               (std::string(field.type) == "double" || std::string(field.type) == "float")) {
        out = value.asDouble();
    } else {
        out = static_cast<std::int64_t>(value.asDouble());
    }
    return true;
}

}  // namespace

FieldValue fit(const Reading& reading, const FieldInfo& field) {
    if (!field.enumerators.empty()) {
        const auto has = [&](const std::string& name) {
            return std::any_of(field.enumerators.begin(), field.enumerators.end(),
                               [&](const auto& e) { return name == e.name; });
        };
        if (const auto* name = std::get_if<std::string>(&reading.value); name != nullptr && has(*name)) {
            return *name;
        }
        return std::string(field.enumerators.front().name);
    }
    const std::string type = field.type;
    if (type == "string") {
        const auto* text = std::get_if<std::string>(&reading.value);
        return text != nullptr ? *text : std::string();
    }
    if (const auto* whole = std::get_if<std::uint64_t>(&reading.value);
        whole != nullptr && type != "double" && type != "float") {
        const auto high = type == "uint64" || type == "int64"
                              ? std::numeric_limits<std::int64_t>::max()
                              : static_cast<std::int64_t>(limitsOf(type).high);
        return *whole % (static_cast<std::uint64_t>(high) + 1);  // counters wrap
    }
    double number = std::visit(
        [](const auto& value) -> double {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return 0;
            } else {
                return static_cast<double>(value);
            }
        },
        reading.value);
    if (type == "bool") {
        return number != 0;
    }
    if (!std::isfinite(number)) {
        number = 0;
    }
    if (field.hasRange) {
        number = std::clamp(number, field.minimum, field.maximum);
    }
    if (type == "double" || type == "float") {
        return number;
    }
    const auto limits = limitsOf(type);
    number = std::clamp(std::round(number), limits.low, limits.high);
    return static_cast<std::int64_t>(number);
}

namespace {

/// The field that distinguishes an event's samples; nullptr if the event has none.
const FieldInfo* keyFieldOf(const DescribedEvent& event) {
    if (!event.key().empty()) {
        return event.find(event.key());
    }
    return event.members().empty() ? nullptr : event.find(event.members().front());
}

/// Returns the values of the key field for which samples are sent, one each.
std::vector<int> keysOf(const DescribedEvent& event, const FieldInfo& key, const KeysRule* rule,
                        const VehicleState& state) {
    std::vector<int> keys;
    if (rule != nullptr) {
        for (const auto& name : (*rule)(state)) {
            for (const auto& enumerator : key.enumerators) {
                if (name == enumerator.name) {
                    keys.push_back(static_cast<int>(enumerator.value));
                }
            }
        }
    } else if (!event.key().empty()) {
        for (const auto& [value, fields] : event.writers()) {
            keys.push_back(value);
        }
    } else if (event.members().size() > 1 && !key.enumerators.empty()) {
        // One sample per kind; the enumerators for "no kind" have none.
        for (const auto& enumerator : key.enumerators) {
            const std::string name = enumerator.name;
            if (name != "none" && name != "unknown" && name != "noNotification") {
                keys.push_back(static_cast<int>(enumerator.value));
            }
        }
    } else {
        keys.push_back(key.enumerators.empty() ? static_cast<int>(key.minimum)
                                               : static_cast<int>(key.enumerators.front().value));
    }
    return keys;
}

/// Returns the fields that a sample with this key value has.
std::vector<std::string> fieldsOf(const DescribedEvent& event, int key) {
    if (event.key().empty()) {
        return event.members();
    }
    if (const auto writer = event.writers().find(key); writer != event.writers().end()) {
        return writer->second;
    }
    std::vector<std::string> names;
    for (const auto& field : event.fields()) {
        names.emplace_back(field.name);
    }
    return names;
}

void replaceOverridden(FieldValues& sample, const std::string& service, const DescribedEvent& event, int key,
                       const std::vector<const FieldOverride*>& overrides) {
    for (const auto* forced : overrides) {
        const FieldInfo* field = event.find(forced->field);
        const bool concerned = forced->service == service && forced->event == event.name() &&
                               (!forced->key || *forced->key == key);
        if (field == nullptr || !concerned) {
            continue;
        }
        FieldValue replacement;
        if (overridden(forced->value, *field, replacement)) {
            sample[forced->field] = replacement;
        } else {
            sample.erase(forced->field);
        }
    }
}

}  // namespace

std::vector<FieldValues> SampleMaker::make(const std::string& service, const DescribedEvent& event,
                                           const VehicleState& state, std::uint64_t wallMs,
                                           const std::vector<const FieldOverride*>& overrides) {
    const FieldInfo* key = keyFieldOf(event);
    if (key == nullptr) {
        return {};
    }
    const std::string path = service + "." + event.name();
    std::vector<FieldValues> samples;
    for (const int value : keysOf(event, *key, m_rules.keysRule(path), state)) {
        FieldValues sample;
        sample[key->name] = static_cast<std::int64_t>(value);
        const std::uint64_t count = m_counts[{&event, value}]++;
        const auto read = [&](const FieldInfo& field) {
            const Moment moment{state,  state.controls, field, value, std::string(key->nameOf(value)),
                                wallMs, count};
            const Rule* rule = m_rules.rule(path, field.name);
            return rule != nullptr ? (*rule)(moment) : plausible(path + "." + field.name, field, state.time);
        };
        for (const auto& name : fieldsOf(event, value)) {
            const FieldInfo* field = event.find(name);
            if (field == nullptr || field == key) {
                continue;
            }
            const FieldInfo* physical = event.fieldOfState(name);
            if (physical != nullptr && m_rules.rule(path, name) == nullptr) {
                sample[name] = fit(Reading(read(*physical).quality), *field);
            } else {
                sample[name] = fit(read(*field), *field);
            }
        }
        replaceOverridden(sample, service, event, value, overrides);
        samples.push_back(std::move(sample));
    }
    return samples;
}

}  // namespace vlmVehicle
