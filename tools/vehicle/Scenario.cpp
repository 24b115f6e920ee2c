#include "tools/vehicle/Scenario.h"

#include <algorithm>
#include <stdexcept>

#include "json/FieldReader.h"
#include "tools/check/Document.h"
#include "tools/check/Suggest.h"

namespace vlmVehicle {

using kyo::Json::Value;
using vlmProd::Field;

namespace {

std::optional<Condition> readCondition(const Field& field) {
    std::string text;
    if (field.isAbsent() || !field.text(text)) {
        return std::nullopt;
    }
    Condition result;
    std::string reason;
    return Condition::parse(text, result, reason) || field.fault(reason) ? std::optional(result)
                                                                         : std::nullopt;
}

/// {"control": value, ...}
std::vector<std::pair<std::string, std::string>> readSettings(const Field& field) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const auto& name : field.names()) {
        const Value& setting = field[name].value();
        if (!setting.isBool() && !setting.isString() && !setting.isNumeric()) {
            field[name].expect(false, "a number or a word");
            continue;
        }
        const std::string as = setting.isBool() ? std::to_string(setting.asBool()) : setting.asString();
        Controls trial;
        std::string reason;
        if (!setControl(trial, name, as, reason)) {
            field.fault(reason);
        }
        result.emplace_back(name, as);
    }
    return result;
}

FieldOverride readOverride(const Field& field) {
    FieldOverride override;
    std::string event;
    field["event"].text(event);
    const auto dot = event.find('.');
    if (field["event"].expect(dot != std::string::npos, "\"Service.event\"")) {
        override.service = event.substr(0, dot);
        override.event = event.substr(dot + 1);
    }
    field["field"].text(override.field);
    if (override.field.empty()) {
        field.fault("\"field\" is missing");
    }
    override.value = field["value"].value();
    if (field["value"].isAbsent() || override.value.isArray() || override.value.isObject()) {
        field.fault("\"value\" is missing, or no number, text, boolean or null");
    }
    if (const Field key = field["key"]; !key.isAbsent()) {
        key.number(override.key.emplace());
    }
    field["from"].number(override.from);
    field["to"].number(override.to);
    override.condition = readCondition(field["while"]);
    field.refuseOthers();
    return override;
}

std::vector<FieldOverride> readOverrides(const Field& list) {
    std::vector<FieldOverride> result;
    for (const Field& entry : list.elements()) {
        result.push_back(readOverride(entry));
    }
    return result;
}

Scenario::Course readCourse(const Field& field, const std::string& name) {
    const ControlName* control = findControl(name);
    if (control == nullptr || !control->words.empty()) {
        std::vector<std::string> numbers;
        for (const auto& known : controlNames()) {
            if (known.words.empty()) {
                numbers.push_back(known.name);
            }
        }
        const std::string hint = vlmCheck::didYouMean(name, numbers);
        field.fault("no control with a number has that name" + (hint.empty() ? "" : "; " + hint));
    }
    Scenario::Course course{name, {}};
    for (const Field& entry : field.elements()) {
        const Value& point = entry.value();
        if (!point.isArray() || point.size() != 2 || !point[0].isNumeric() || !point[1].isNumeric()) {
            field.expect(false, "points [seconds, value]");
            break;
        }
        if (!course.points.empty() && point[0].asDouble() < course.points.back().first) {
            field.fault("the points' times must not go back");
        }
        course.points.emplace_back(point[0].asDouble(), point[1].asDouble());
    }
    field.expect(!course.points.empty(), "at least one point");
    return course;
}

Scenario::Phase readPhase(const Field& field) {
    Scenario::Phase phase;
    field["name"].text(phase.name);
    if (field["duration"].number(phase.duration)) {
        field["duration"].expect(phase.duration > 0, "a number of seconds above 0");
    }
    phase.condition = readCondition(field["if"]);
    phase.until = readCondition(field["until"]);
    phase.changes.push_back({0, readSettings(field["set"])});
    for (const Field& change : field["at"].elements()) {
        double time = 0;
        change["time"].number(time);
        phase.changes.push_back({time, readSettings(change["set"])});
        change.refuseOthers();
    }
    std::stable_sort(phase.changes.begin(), phase.changes.end(),
                     [](const auto& a, const auto& b) { return a.time < b.time; });
    const Field courses = field["course"];
    for (const auto& name : courses.names()) {
        phase.courses.push_back(readCourse(courses[name], name));
    }
    for (const Field& reaction : field["when"].elements()) {
        const auto condition = readCondition(reaction["if"]);
        if (reaction["if"].isAbsent()) {
            reaction.fault("\"if\" is missing");
        }
        bool once = true;
        reaction["once"].flag(once);
        phase.reactions.push_back(
            {condition.value_or(Condition()), {0, readSettings(reaction["set"])}, once});
        reaction.refuseOthers();
    }
    phase.overrides = readOverrides(field["overrides"]);
    field.refuseOthers();
    return phase;
}

}  // namespace

double Scenario::duration() const {
    double sum = 0;
    for (const auto& phase : phases) {
        sum += phase.duration;
    }
    return sum;
}

bool Scenario::read(const Value& document, Scenario& out, std::string& error) {
    vlmProd::FieldReader reader("scenario", vlmProd::Reading::Exact);
    const Field field = reader.root(document);
    Scenario result;
    field["name"].text(result.name);
    field["description"].text(result.description);
    field["loop"].flag(result.loop);
    const Field start = field["start"];
    for (const char* name : {"latitude", "longitude", "altitude", "heading", "odometer", "chargeState",
                             "batteryTemperature", "interiorTemperature", "consumption"}) {
        double ignored = 0;
        start[name].number(ignored);
    }
    start.refuseOthers();
    result.start = start.value();
    for (const Field& phase : field["phases"].elements()) {
        result.phases.push_back(readPhase(phase));
    }
    Change first{0, readSettings(field["set"])};
    if (field["phases"].expect(!result.phases.empty(), "at least one phase")) {
        auto& changes = result.phases[0].changes;
        changes.insert(changes.begin(), std::move(first));
    }
    result.overrides = readOverrides(field["overrides"]);
    for (const Field& fault : field["faults"].elements()) {
        fault.text(result.faults.emplace_back());
    }
    field.refuseOthers();
    error = reader.good() ? "" : reader.faults().front();
    if (reader.good()) {
        out = std::move(result);
    }
    return reader.good();
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
