#include "tools/vehicle/Scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "tools/check/Document.h"
#include "tools/check/Suggest.h"

namespace vlmVehicle {

using kyo::Json::Value;
using vlmCheck::kindOf;

namespace {

/// Reads members and remembers the first error.
class Reading {
  public:
    explicit Reading(std::string& error) : m_error(error) { error.clear(); }
    bool good() const { return m_error.empty(); }

    void fail(const std::string& path, const std::string& reason) {
        if (good()) {
            m_error = path + ": " + reason;
        }
    }
    bool object(const Value& value, const std::string& path, const std::vector<std::string>& known) {
        if (!value.isObject()) {
            fail(path, std::string("an object is expected, not ") + kindOf(value));
            return false;
        }
        for (const auto& key : value.getMemberNames()) {
            if (std::find(known.begin(), known.end(), key) == known.end()) {
                const std::string hint = vlmCheck::didYouMean(key, known);
                fail(path, "\"" + key + "\" is not known here" + (hint.empty() ? "" : "; " + hint));
                return false;
            }
        }
        return true;
    }
    const Value& list(const Value& parent, const std::string& key, const std::string& path) {
        const Value& value = parent.isMember(key) ? parent[key] : Value::nullSingleton();
        if (!value.isNull() && !value.isArray()) {
            fail(path, std::string("an array is expected, not ") + kindOf(value));
            return Value::nullSingleton();
        }
        return value;
    }
    double number(const Value& parent, const std::string& key, const std::string& path, double otherwise) {
        if (!parent.isMember(key)) {
            return otherwise;
        }
        if (!parent[key].isNumeric()) {
            fail(path + "." + key, std::string("a number is expected, not ") + kindOf(parent[key]));
            return otherwise;
        }
        return parent[key].asDouble();
    }
    std::string text(const Value& parent, const std::string& key, const std::string& path) {
        if (!parent.isMember(key)) {
            return {};
        }
        if (!parent[key].isString()) {
            fail(path + "." + key, std::string("a text is expected, not ") + kindOf(parent[key]));
            return {};
        }
        return parent[key].asString();
    }
    bool flag(const Value& parent, const std::string& key, const std::string& path, bool otherwise) {
        if (!parent.isMember(key)) {
            return otherwise;
        }
        if (!parent[key].isBool()) {
            fail(path + "." + key, std::string("true or false is expected, not ") + kindOf(parent[key]));
        }
        return parent[key].isBool() ? parent[key].asBool() : otherwise;
    }
    std::optional<Condition> condition(const Value& parent, const std::string& key, const std::string& path) {
        if (!parent.isMember(key)) {
            return std::nullopt;
        }
        Condition result;
        std::string reason;
        if (!Condition::parse(text(parent, key, path), result, reason)) {
            fail(path + "." + key, reason);
        }
        return result;
    }
    /// Reads {"control": value, ...}.
    std::vector<std::pair<std::string, std::string>> settings(const Value& value, const std::string& path) {
        std::vector<std::pair<std::string, std::string>> result;
        if (value.isNull()) {
            return result;
        }
        if (!value.isObject()) {
            fail(path, std::string("an object is expected, not ") + kindOf(value));
            return result;
        }
        for (const auto& name : value.getMemberNames()) {
            const Value& setting = value[name];
            std::string as;
            if (setting.isBool()) {
                as = setting.asBool() ? "1" : "0";
            } else if (setting.isString() || setting.isNumeric()) {
                as = setting.asString();
            } else {
                fail(path + "." + name,
                     std::string("a number or a word is expected, not ") + kindOf(setting));
            }
            Controls trial;
            std::string reason;
            if (good() && !setControl(trial, name, as, reason)) {
                fail(path, reason);
            }
            result.emplace_back(name, as);
        }
        return result;
    }

  private:
    std::string& m_error;
};

std::vector<FieldOverride> readOverrides(Reading& reading, const Value& parent, const std::string& path) {
    std::vector<FieldOverride> result;
    const Value& list = reading.list(parent, "overrides", path);
    for (kyo::Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const std::string here = path + "[" + std::to_string(i) + "]";
        const Value& entry = list[i];
        if (!reading.object(entry, here, {"event", "field", "key", "value", "from", "to", "while"})) {
            break;
        }
        FieldOverride override;
        const std::string event = reading.text(entry, "event", here);
        const auto dot = event.find('.');
        if (dot == std::string::npos) {
            reading.fail(here + ".event", "\"Service.event\" is expected");
            break;
        }
        override.service = event.substr(0, dot);
        override.event = event.substr(dot + 1);
        override.field = reading.text(entry, "field", here);
        if (override.field.empty()) {
            reading.fail(here, "\"field\" is missing");
        }
        if (!entry.isMember("value") || entry["value"].isArray() || entry["value"].isObject()) {
            reading.fail(here, "\"value\" is missing, or no number, text, boolean or null");
        }
        override.value = entry["value"];
        if (entry.isMember("key")) {
            override.key = static_cast<int>(reading.number(entry, "key", here, 0));
        }
        override.from = reading.number(entry, "from", here, 0);
        override.to = reading.number(entry, "to", here, 0);
        override.condition = reading.condition(entry, "while", here);
        result.push_back(std::move(override));
    }
    return result;
}

Scenario::Phase readPhase(Reading& reading, const Value& value, const std::string& path) {
    Scenario::Phase phase;
    if (!reading.object(value, path,
                        {"name", "duration", "if", "until", "set", "at", "course", "when", "overrides"})) {
        return phase;
    }
    phase.name = reading.text(value, "name", path);
    phase.duration = reading.number(value, "duration", path, 0);
    if (phase.duration <= 0) {
        reading.fail(path + ".duration", "a number of seconds above 0 is expected");
    }
    phase.condition = reading.condition(value, "if", path);
    phase.until = reading.condition(value, "until", path);
    if (value.isMember("set")) {
        phase.changes.push_back({0, reading.settings(value["set"], path + ".set")});
    }
    const Value& changes = reading.list(value, "at", path + ".at");
    for (kyo::Json::ArrayIndex i = 0; i < changes.size(); ++i) {
        const std::string here = path + ".at[" + std::to_string(i) + "]";
        if (reading.object(changes[i], here, {"time", "set"})) {
            phase.changes.push_back({reading.number(changes[i], "time", here, 0),
                                     reading.settings(changes[i]["set"], here + ".set")});
        }
    }
    std::stable_sort(phase.changes.begin(), phase.changes.end(),
                     [](const auto& a, const auto& b) { return a.time < b.time; });
    if (value.isMember("course") &&
        reading.object(
            value["course"], path + ".course",
            value["course"].isObject() ? value["course"].getMemberNames() : std::vector<std::string>())) {
        for (const auto& name : value["course"].getMemberNames()) {
            const std::string here = path + ".course." + name;
            const ControlName* control = findControl(name);
            if (control == nullptr || !control->words.empty()) {
                std::vector<std::string> numbers;
                for (const auto& known : controlNames()) {
                    if (known.words.empty()) {
                        numbers.push_back(known.name);
                    }
                }
                const std::string hint = vlmCheck::didYouMean(name, numbers);
                reading.fail(here,
                             "no control with a number has that name" + (hint.empty() ? "" : "; " + hint));
            }
            Scenario::Course course{name, {}};
            const Value& points = reading.list(value["course"], name, here);
            for (const auto& point : points) {
                if (!point.isArray() || point.size() != 2 || !point[0].isNumeric() || !point[1].isNumeric()) {
                    reading.fail(here, "points [seconds, value] are expected");
                    break;
                }
                if (!course.points.empty() && point[0].asDouble() < course.points.back().first) {
                    reading.fail(here, "the points' times must not go back");
                }
                course.points.emplace_back(point[0].asDouble(), point[1].asDouble());
            }
            if (course.points.empty()) {
                reading.fail(here, "at least one point is expected");
            }
            phase.courses.push_back(std::move(course));
        }
    }
    const Value& reactions = reading.list(value, "when", path + ".when");
    for (kyo::Json::ArrayIndex i = 0; i < reactions.size(); ++i) {
        const std::string here = path + ".when[" + std::to_string(i) + "]";
        if (reading.object(reactions[i], here, {"if", "set", "once"})) {
            const auto condition = reading.condition(reactions[i], "if", here);
            if (!condition) {
                reading.fail(here, "\"if\" is missing");
                break;
            }
            phase.reactions.push_back({*condition,
                                       {0, reading.settings(reactions[i]["set"], here + ".set")},
                                       reading.flag(reactions[i], "once", here, true)});
        }
    }
    phase.overrides = readOverrides(reading, value, path + ".overrides");
    return phase;
}

const std::vector<std::string> startNames = {
    "latitude",           "longitude",           "altitude",   "heading", "odometer", "chargeState",
    "batteryTemperature", "interiorTemperature", "consumption"};

}  // namespace

double Scenario::duration() const {
    double sum = 0;
    for (const auto& phase : phases) {
        sum += phase.duration;
    }
    return sum;
}

bool Scenario::read(const Value& document, Scenario& out, std::string& error) {
    Reading reading(error);
    Scenario result;
    if (!reading.object(document, "scenario",
                        {"name", "description", "loop", "start", "set", "phases", "overrides", "faults"})) {
        return false;
    }
    result.name = reading.text(document, "name", "scenario");
    result.description = reading.text(document, "description", "scenario");
    result.loop = reading.flag(document, "loop", "scenario", false);
    if (document.isMember("start") && reading.object(document["start"], "start", startNames)) {
        result.start = document["start"];
        for (const auto& name : result.start.getMemberNames()) {
            reading.number(result.start, name, "start", 0);
        }
    }
    const Value& phases = reading.list(document, "phases", "phases");
    for (kyo::Json::ArrayIndex i = 0; i < phases.size() && reading.good(); ++i) {
        result.phases.push_back(readPhase(reading, phases[i], "phases[" + std::to_string(i) + "]"));
    }
    if (result.phases.empty()) {
        reading.fail("phases", "at least one phase is expected");
    } else if (document.isMember("set")) {
        result.phases[0].changes.insert(result.phases[0].changes.begin(),
                                        {0, reading.settings(document["set"], "set")});
    }
    result.overrides = readOverrides(reading, document, "overrides");
    for (const auto& fault : reading.list(document, "faults", "faults")) {
        if (!fault.isString()) {
            reading.fail("faults", "texts are expected");
            break;
        }
        result.faults.push_back(fault.asString());
    }
    if (!reading.good()) {
        return false;
    }
    out = std::move(result);
    return true;
}

bool Scenario::readFile(const std::string& path, Scenario& out, std::string& error) {
    vlmCheck::Document document;
    std::vector<vlmCheck::Finding> findings;
    if (!vlmCheck::readDocument(path, document, findings)) {
        error = path + (findings[0].line != 0 ? ":" + std::to_string(findings[0].line) : "") + ": " +
                findings[0].reason;
        return false;
    }
    if (!read(document.root, out, error)) {
        error = path + ": " + error;
        return false;
    }
    if (out.name.empty()) {
        out.name = path;
    }
    return true;
}

void ScenarioPlayer::begin(DriveModel& model) {
    auto& s = model.state();
    const auto take = [&](const char* name, double& value) {
        if (m_scenario.start.isMember(name)) {
            value = m_scenario.start[name].asDouble();
        }
    };
    take("latitude", s.latitude);
    take("longitude", s.longitude);
    take("altitude", s.altitude);
    take("heading", s.heading);
    take("odometer", s.odometer);
    take("chargeState", s.stateOfCharge);
    take("batteryTemperature", s.batteryTemperature);
    take("interiorTemperature", s.interiorTemperature);
    take("consumption", s.averageConsumption);
    s.recentConsumption = s.averageConsumption;
    s.front.windingTemperature = s.rear.windingTemperature = s.batteryTemperature;
    if (!over()) {
        m_reacted.assign(m_scenario.phases[m_phase].reactions.size(), false);
    }
    advance(model, 0);
}

void ScenarioPlayer::apply(DriveModel& model, const Scenario::Change& change) {
    std::string ignored;  // Scenario::read() has checked every setting
    for (const auto& [name, value] : change.set) {
        setControl(model.controls(), name, value, ignored);
    }
}

/// Enters the next phase whose condition holds. Returns false when the scenario is over.
bool ScenarioPlayer::enterNext(const VehicleState& state) {
    for (std::size_t tried = 0; tried < m_scenario.phases.size(); ++tried) {
        if (++m_phase >= m_scenario.phases.size()) {
            if (!m_scenario.loop) {
                return false;
            }
            m_phase = 0;
        }
        const auto& phase = m_scenario.phases[m_phase];
        if (!phase.condition || phase.condition->holds(state)) {
            m_nextChange = 0;
            m_reacted.assign(phase.reactions.size(), false);
            return true;
        }
    }
    m_phase = m_scenario.phases.size();  // no phase applies
    return false;
}

void ScenarioPlayer::advance(DriveModel& model, double seconds) {
    m_time += seconds;
    if (over()) {
        return;
    }
    m_phaseTime += seconds;
    const auto* phase = &m_scenario.phases[m_phase];
    const bool ended = m_phaseTime > 0 && phase->until && phase->until->holds(model.state());
    if (m_phaseTime >= phase->duration || ended) {
        m_phaseTime = ended ? 0 : m_phaseTime - phase->duration;
        if (!enterNext(model.state())) {
            return;
        }
        phase = &m_scenario.phases[m_phase];
    }
    while (m_nextChange < phase->changes.size() && phase->changes[m_nextChange].time <= m_phaseTime) {
        apply(model, phase->changes[m_nextChange++]);
    }
    for (const auto& course : phase->courses) {
        const auto& points = course.points;
        const auto after =
            std::upper_bound(points.begin(), points.end(), m_phaseTime,
                             [](double time, const auto& point) { return time < point.first; });
        double value = 0;
        if (after == points.begin()) {
            value = points.front().second;
        } else if (after == points.end()) {
            value = points.back().second;
        } else {
            const auto before = after - 1;
            const double share = (m_phaseTime - before->first) / (after->first - before->first);
            value = before->second + share * (after->second - before->second);
        }
        findControl(course.control)->set(model.controls(), value);
    }
    for (std::size_t i = 0; i < phase->reactions.size(); ++i) {
        const auto& reaction = phase->reactions[i];
        if ((!m_reacted[i] || !reaction.once) && reaction.condition.holds(model.state())) {
            m_reacted[i] = true;
            apply(model, reaction.change);
        }
    }
}

std::vector<const FieldOverride*> ScenarioPlayer::overrides(const VehicleState& state) const {
    std::vector<const FieldOverride*> result;
    const auto collect = [&](const std::vector<FieldOverride>& all, double time) {
        for (const auto& entry : all) {
            const bool inTime = time >= entry.from && (entry.to == 0 || time < entry.to);
            if (inTime && (!entry.condition || entry.condition->holds(state))) {
                result.push_back(&entry);
            }
        }
    };
    collect(m_scenario.overrides, m_time);
    if (!over()) {
        collect(m_scenario.phases[m_phase].overrides, m_phaseTime);
    }
    return result;
}

Scenario Scenario::plainDrive() {
    static const char* const text = R"({
      "name": "plain drive", "loop": true,
      "description": "Town and country, with stops, bends and hills, for as long as one likes.",
      "set": {"speedLimit": 50, "routeRemaining": 120},
      "phases": [
        {"name": "town", "duration": 120,
         "course": {"targetSpeed": [[0, 0], [5, 48], [35, 48], [38, 0], [50, 0], [53, 50], [85, 50], [90, 30], [100, 30], [104, 50]],
                    "curvature": [[0, 0], [20, 0], [24, 12], [30, 12], [34, 0], [90, 0], [92, 35], [98, 35], [100, 0]],
                    "slope": [[0, 0], [60, 2], [110, 0]]},
         "set": {"speedLimit": 50, "leadDistance": 0},
         "at": [{"time": 86, "set": {"indicator": "right"}}, {"time": 99, "set": {"indicator": "off"}}]},
        {"name": "country road", "duration": 150,
         "course": {"targetSpeed": [[0, 50], [5, 95], [60, 95], [66, 70], [80, 70], [86, 98], [140, 98], [148, 50]],
                    "curvature": [[0, 0], [20, 3], [40, -3], [62, 0], [66, 10], [78, 10], [82, 0], [110, -4], [130, 0]],
                    "slope": [[0, 0], [30, 4], [60, 4], [90, -5], [130, -3], [150, 0]]},
         "set": {"speedLimit": 100, "leadDistance": 90, "leadSpeed": 92}},
        {"name": "through a tunnel", "duration": 30,
         "set": {"tunnel": "on", "targetSpeed": 60, "speedLimit": 60, "slope": 0, "curvature": 0},
         "at": [{"time": 28, "set": {"tunnel": "off"}}]},
        {"name": "back through town", "duration": 60,
         "set": {"speedLimit": 30, "tunnel": "off"},
         "course": {"targetSpeed": [[0, 50], [4, 30], [45, 30], [50, 0]],
                    "curvature": [[0, 0], [10, 0], [14, -25], [22, -25], [26, 0]]},
         "at": [{"time": 8, "set": {"indicator": "left"}}, {"time": 24, "set": {"indicator": "off"}}]},
        {"name": "charging", "duration": 3600, "if": "chargeState < 15", "until": "chargeState >= 60",
         "set": {"targetSpeed": 0, "gear": "park", "plugged": "on", "chargePower": 150, "chargeCurrent": "dc"},
         "at": [{"time": 3599, "set": {"plugged": "off"}}]},
        {"name": "unplugging", "duration": 2, "set": {"plugged": "off", "gear": "drive"}}
      ]})";
    Value document;
    kyo::Json::Reader reader;
    Scenario result;
    std::string error;
    if (!reader.parse(text, document, false) || !read(document, result, error)) {
        throw std::logic_error("the built-in scenario: " + error + reader.getFormattedErrorMessages());
    }
    return result;
}

}  // namespace vlmVehicle
