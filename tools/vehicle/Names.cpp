#include "tools/vehicle/Names.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "tools/check/Suggest.h"

namespace vlmVehicle {

namespace {

template <typename Member>
ControlName number(const char* name, const char* meaning, Member member) {
    return {name,
            meaning,
            {},
            [member](Controls& c, double v) { c.*member = v; },
            [member](const Controls& c) { return static_cast<double>(c.*member); }};
}

ControlName toggle(const char* name, const char* meaning, bool Controls::*member) {
    return {name,
            meaning,
            {"off", "on"},
            [member](Controls& c, double v) { c.*member = v != 0; },
            [member](const Controls& c) { return c.*member ? 1.0 : 0.0; }};
}

template <typename Enum>
ControlName choice(const char* name, const char* meaning, std::vector<std::string> words,
                   Enum Controls::*member) {
    return {name, meaning, std::move(words),
            [member](Controls& c, double v) { c.*member = static_cast<Enum>(static_cast<int>(v)); },
            [member](const Controls& c) { return static_cast<double>(c.*member); }};
}

template <std::size_t Size>
void addFlags(std::vector<ControlName>& all, const std::array<const char*, Size>& places, const char* prefix,
              const char* meaning, std::vector<std::string> words, std::array<bool, Size> Controls::*member) {
    for (std::size_t i = 0; i < Size; ++i) {
        all.push_back({std::string(prefix) + "." + places[i], meaning, words,
                       [member, i](Controls& c, double v) { (c.*member)[i] = v != 0; },
                       [member, i](const Controls& c) { return (c.*member)[i] ? 1.0 : 0.0; }});
    }
}

constexpr std::array<const char*, DoorCount> doorPlaces = {"frontLeft", "frontRight", "rearLeft",
                                                           "rearRight"};
constexpr std::array<const char*, SeatCount> seatPlaces = {"driver", "frontPassenger", "rearLeft",
                                                           "rearMiddle", "rearRight"};

std::vector<ControlName> makeControls() {
    std::vector<ControlName> all = {
        number("targetSpeed", "speed that the driver wants, km/h; negative in reverse",
               &Controls::targetSpeed),
        number("curvature", "bend of the road, 1/km; positive turns right, 20 is a radius of 50 m",
               &Controls::curvature),
        number("slope", "slope of the road, %; positive is uphill", &Controls::slope),
        number("speedLimit", "speed limit, km/h; 0 for none", &Controls::speedLimit),
        choice("gear", "selector", {"park", "reverse", "neutral", "drive"}, &Controls::gear),
        toggle("ignition", "ignition", &Controls::ignition),
        toggle("parkingBrake", "parking brake", &Controls::parkingBrake),
        toggle("emergencyBraking", "full braking", &Controls::emergencyBraking),
        toggle("handsOnWheel", "hands on the steering wheel", &Controls::handsOnWheel),
        choice("mode", "driving mode", {"eco", "comfort", "normal", "sport", "individual"}, &Controls::mode),
        toggle("cruiseControl", "adaptive cruise control", &Controls::cruiseControl),
        number("leadDistance", "distance to a vehicle ahead when it appears, m; 0 for none",
               &Controls::leadDistance),
        number("leadSpeed", "speed of the vehicle ahead, km/h", &Controls::leadSpeed),
        choice("indicator", "turn signal", {"off", "left", "right"}, &Controls::indicator),
        toggle("hazard", "hazard warning lights", &Controls::hazard),
        toggle("highBeam", "high beam", &Controls::highBeam),
        toggle("rearFog", "rear fog light", &Controls::rearFog),
        {"tailgate",
         "tailgate",
         {"closed", "open"},
         [](Controls& c, double v) { c.tailgateOpen = v != 0; },
         [](const Controls& c) { return c.tailgateOpen ? 1.0 : 0.0; }},
        {"hood",
         "hood",
         {"closed", "open"},
         [](Controls& c, double v) { c.hoodOpen = v != 0; },
         [](const Controls& c) { return c.hoodOpen ? 1.0 : 0.0; }},
        number("sunroof", "opening of the sunroof, %", &Controls::sunroofOpen),
        {"locked",
         "central locking",
         {"unlocked", "locked"},
         [](Controls& c, double v) { c.locked = v != 0; },
         [](const Controls& c) { return c.locked ? 1.0 : 0.0; }},
        toggle("keyInside", "a key is inside the vehicle", &Controls::keyInside),
        toggle("wiper", "front wiper", &Controls::wiper),
        toggle("alarm", "somebody breaks in", &Controls::alarm),
        number("outsideTemperature", "temperature outside, degC", &Controls::outsideTemperature),
        number("humidity", "relative humidity outside, %", &Controls::humidity),
        number("brightness", "brightness outside, lx", &Controls::brightness),
        number("rain", "rain, mm/h", &Controls::rain),
        toggle("tunnel", "in a tunnel: dark, and no satellites", &Controls::tunnel),
        number("friction", "friction of the road; 0.9 is dry, 0.2 is ice", &Controls::friction),
        number("obstacleDistance", "distance to the obstacle at the parking sensors, m; 0 for none",
               &Controls::obstacleDistance),
        toggle("climate", "air conditioning", &Controls::climate),
        number("climateTarget", "temperature set inside, degC", &Controls::climateTarget),
        toggle("plugged", "charging cable", &Controls::plugged),
        number("chargePower", "power that the charger offers, kW", &Controls::chargePower),
        {"chargeCurrent",
         "kind of charger",
         {"ac", "dc"},
         [](Controls& c, double v) { c.chargeDc = v != 0; },
         [](const Controls& c) { return c.chargeDc ? 1.0 : 0.0; }},
        number("chargeLimit", "charge at which charging ends, %", &Controls::chargeLimit),
        number("routeRemaining", "way to the destination of the route guidance, km; 0 without guidance",
               &Controls::routeRemaining),
        choice("impact", "an accident, at once", {"none", "front", "rear", "left", "right", "rollover"},
               &Controls::impact),
    };
    addFlags(all, doorPlaces, "door", "door", {"closed", "open"}, &Controls::doorOpen);
    for (std::size_t i = 0; i < DoorCount; ++i) {
        all.push_back({std::string("window.") + doorPlaces[i],
                       "opening of the window, %",
                       {},
                       [i](Controls& c, double v) { c.windowOpen[i] = v; },
                       [i](const Controls& c) { return c.windowOpen[i]; }});
    }
    addFlags(all, seatPlaces, "seat", "seat", {"vacant", "occupied"}, &Controls::occupied);
    addFlags(all, seatPlaces, "belt", "belt", {"open", "fastened"}, &Controls::belted);
    return all;
}

std::vector<std::string> allControlNames() {
    std::vector<std::string> names;
    for (const auto& control : controlNames()) {
        names.push_back(control.name);
    }
    return names;
}

bool toNumber(const std::string& text, const std::vector<std::string>& words, double& out) {
    const auto word = std::find(words.begin(), words.end(), text);
    if (word != words.end()) {
        out = static_cast<double>(word - words.begin());
        return true;
    }
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    const bool whole = end != text.c_str() && *end == '\0' && std::isfinite(out);
    return whole &&
           (words.empty() || (out == std::floor(out) && out >= 0 && out < static_cast<double>(words.size())));
}

}  // namespace

const std::vector<ControlName>& controlNames() {
    static const std::vector<ControlName> all = makeControls();
    return all;
}

const ControlName* findControl(const std::string& name) {
    for (const auto& control : controlNames()) {
        if (control.name == name) {
            return &control;
        }
    }
    return nullptr;
}

const std::vector<QuantityName>& quantityNames() {
    static const std::vector<QuantityName> all = {
        {"speed", "km/h", [](const VehicleState& s) { return s.speedKmh(); }},
        {"acceleration", "m/s²", [](const VehicleState& s) { return s.acceleration; }},
        {"heading", "deg", [](const VehicleState& s) { return s.heading; }},
        {"altitude", "m", [](const VehicleState& s) { return s.altitude; }},
        {"odometer", "km", [](const VehicleState& s) { return s.odometer; }},
        {"tripDistance", "km since the ignition was switched on",
         [](const VehicleState& s) { return s.tripDistance; }},
        {"standstillTime", "s since the car stopped", [](const VehicleState& s) { return s.standstillTime; }},
        {"gap", "m to the vehicle ahead", [](const VehicleState& s) { return s.gap; }},
        {"chargeState", "% of the usable content", [](const VehicleState& s) { return s.stateOfCharge; }},
        {"range", "km", [](const VehicleState& s) { return s.range(); }},
        {"consumption", "kWh/100km over the last 20 km",
         [](const VehicleState& s) { return s.averageConsumption; }},
        {"batteryPower", "kW; negative charges", [](const VehicleState& s) { return s.batteryPower; }},
        {"batteryTemperature", "degC", [](const VehicleState& s) { return s.batteryTemperature; }},
        {"interiorTemperature", "degC", [](const VehicleState& s) { return s.interiorTemperature; }},
        {"charging", "0 or 1", [](const VehicleState& s) { return s.charging ? 1.0 : 0.0; }},
        {"crashSeverity", "0 to 4", [](const VehicleState& s) { return double(s.crashSeverity); }},
    };
    return all;
}

bool setControl(Controls& controls, const std::string& name, const std::string& value, std::string& error) {
    const ControlName* control = findControl(name);
    if (control == nullptr) {
        const std::string hint = vlmCheck::didYouMean(name, allControlNames());
        error = "no control is called \"" + name + "\"" + (hint.empty() ? "" : "; " + hint);
        return false;
    }
    double number = 0;
    if (!toNumber(value, control->words, number)) {
        error = name + " cannot be \"" + value + "\": " +
                (control->words.empty() ? "a number is expected"
                                        : "one of " + vlmCheck::listed(control->words) + " is expected");
        return false;
    }
    control->set(controls, number);
    return true;
}

bool Condition::parse(const std::string& text, Condition& out, std::string& error) {
    std::istringstream stream(text);
    Condition result;
    std::string name;
    std::string sign;
    std::string value;
    std::string joint = "and";
    while (joint == "and") {
        if (!(stream >> name >> sign >> value)) {
            error = "\"" + text + "\": a condition is \"NAME SIGN VALUE\", joined by \"and\"";
            return false;
        }
        const std::vector<std::string> signs = {"<", "<=", ">", ">=", "==", "!="};
        if (std::find(signs.begin(), signs.end(), sign) == signs.end()) {
            error = "\"" + text + "\": \"" + sign + "\" is none of " + vlmCheck::listed(signs);
            return false;
        }
        Comparison comparison;
        comparison.sign = sign;
        std::vector<std::string> words;
        std::vector<std::string> known = allControlNames();
        if (const ControlName* control = findControl(name)) {
            comparison.left = [control](const VehicleState& s) { return control->get(s.controls); };
            words = control->words;
        }
        for (const auto& quantity : quantityNames()) {
            known.push_back(quantity.name);
            if (quantity.name == name) {
                comparison.left = quantity.get;
            }
        }
        if (!comparison.left) {
            const std::string hint = vlmCheck::didYouMean(name, known);
            error =
                "\"" + text + "\": nothing is called \"" + name + "\"" + (hint.empty() ? "" : "; " + hint);
            return false;
        }
        if (!toNumber(value, words, comparison.right)) {
            error = "\"" + text + "\": \"" + value + "\" is no value of " + name;
            return false;
        }
        result.m_all.push_back(std::move(comparison));
        if (!(stream >> joint)) {
            out = std::move(result);
            return true;
        }
    }
    error = "\"" + text + "\": \"and\" is expected instead of \"" + joint + "\"";
    return false;
}

bool Condition::holds(const VehicleState& state) const {
    return std::all_of(m_all.begin(), m_all.end(), [&](const Comparison& c) {
        const double left = c.left(state);
        return c.sign == "<"    ? left < c.right
               : c.sign == "<=" ? left <= c.right
               : c.sign == ">"  ? left > c.right
               : c.sign == ">=" ? left >= c.right
               : c.sign == "==" ? left == c.right
                                : left != c.right;
    });
}

}  // namespace vlmVehicle
