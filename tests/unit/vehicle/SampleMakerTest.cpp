// The rules against the descriptions of all services, and the services against each other.
#include "tools/vehicle/SampleMaker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <set>

namespace {

using namespace vlmVehicle;
using qdr::services::DescribedEvent;
using qdr::services::DescribedService;
using qdr::services::FieldInfo;
using qdr::services::FieldValue;
using qdr::services::FieldValues;

constexpr std::uint64_t wallMs = 1'700'000'000'123;

/// All described services, and their events by "Service.event".
struct AllServices {
    std::vector<std::unique_ptr<DescribedService>> services;
    std::map<std::string, DescribedEvent*> events;

    static AllServices& get() {
        static AllServices all;
        return all;
    }
    AllServices() {
        for (const auto& name : qdr::services::describedServiceNames()) {
            services.push_back(qdr::services::makeDescribedService(name));
            for (auto* event : services.back()->events()) {
                events[name + "." + event->name()] = event;
            }
        }
    }
};

const FieldInfo* fieldOf(const DescribedEvent& event, const std::string& name) {
    for (const auto& field : event.fields()) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

bool hasEnumerator(const FieldInfo& field, const std::string& name) {
    return std::any_of(field.enumerators.begin(), field.enumerators.end(),
                       [&](const auto& e) { return name == e.name; });
}

const FieldInfo& keyField(const DescribedEvent& event) {
    return *fieldOf(event, event.key().empty() ? event.members().front() : event.key());
}

/// Calls `look` with states all over the example scenarios and the plain drive.
void throughAllStories(const std::function<void(const VehicleState&, const std::string& where)>& look) {
    std::vector<Scenario> stories{Scenario::plainDrive()};
    for (const auto& file : std::filesystem::directory_iterator(VLM_EXAMPLES "/scenarios")) {
        Scenario scenario;
        std::string error;
        ASSERT_TRUE(Scenario::readFile(file.path(), scenario, error)) << error;
        stories.push_back(std::move(scenario));
    }
    for (auto& story : stories) {
        const double duration = story.duration();
        const std::string name = story.name;
        ScenarioPlayer player(std::move(story));
        DriveModel model;
        player.begin(model);
        for (double time = 0; time < duration; time += 1) {
            look(model.state(), name + "/" + player.phase());
            player.advance(model, 1);
            model.step(1);
        }
    }
}

double number(const FieldValue& value) {
    return std::visit(
        [](const auto& v) -> double {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>) {
                ADD_FAILURE() << "\"" << v << "\" is no number";
                return 0;
            } else {
                return static_cast<double>(v);
            }
        },
        value);
}

std::string text(const FieldValue& value) {
    return std::holds_alternative<std::string>(value) ? std::get<std::string>(value) : "";
}

/// The samples of one event by the enumerator of their key.
class Story {
  public:
    explicit Story(const VehicleState& state) : m_state(state) {}

    std::map<std::string, FieldValues> operator()(const std::string& path) {
        const auto* event = AllServices::get().events.at(path);
        std::map<std::string, FieldValues> result;
        for (auto& sample : m_maker.make(path.substr(0, path.find('.')), *event, m_state, wallMs)) {
            const auto& key = keyField(*event);
            const auto value = static_cast<std::int64_t>(number(sample[key.name]));
            for (const auto& enumerator : key.enumerators) {
                if (enumerator.value == value) {
                    result[enumerator.name] = sample;
                }
            }
        }
        return result;
    }
    FieldValues one(const std::string& path) { return (*this)(path).begin()->second; }

  private:
    const VehicleState& m_state;
    SampleMaker m_maker;
};

TEST(Rules, name_events_and_fields_that_are_described) {
    const auto& events = AllServices::get().events;
    for (const auto& name : RuleBook::standard().names()) {
        const auto dot = name.rfind('.');
        const auto event = events.find(name.substr(0, dot));
        ASSERT_NE(event, events.end()) << name;
        if (dot + 1 != name.size()) {
            EXPECT_NE(fieldOf(*event->second, name.substr(dot + 1)), nullptr) << name;
        }
    }
}

TEST(Rules, give_enumerators_that_exist_and_numbers_inside_their_ranges) {
    const auto& book = RuleBook::standard();
    std::set<std::string> told;  // one message per field is enough
    throughAllStories([&](const VehicleState& state, const std::string& where) {
        for (const auto& [path, event] : AllServices::get().events) {
            const auto& key = keyField(*event);
            std::vector<std::pair<int, std::string>> keys;
            for (const auto& enumerator : key.enumerators) {
                keys.emplace_back(static_cast<int>(enumerator.value), enumerator.name);
            }
            if (const KeysRule* rule = book.keysRule(path)) {
                for (const auto& name : (*rule)(state)) {
                    EXPECT_TRUE(hasEnumerator(key, name) || !told.insert(path + name).second)
                        << path << ": " << name;
                }
            }
            for (const auto& field : event->fields()) {
                const Rule* rule = book.rule(path, field.name);
                if (rule == nullptr) {
                    continue;
                }
                for (const auto& [value, name] : keys) {
                    const Reading reading = (*rule)({state, state.controls, field, value, name, wallMs, 1});
                    const std::string id = path + "." + field.name + " of " + name + " in " + where;
                    if (!field.enumerators.empty()) {
                        const auto* chosen = std::get_if<std::string>(&reading.value);
                        const bool good = chosen != nullptr && hasEnumerator(field, *chosen);
                        EXPECT_TRUE(good || !told.insert(path + field.name).second)
                            << id << ": " << (chosen != nullptr ? *chosen : "no name");
                    } else if (const auto* real = std::get_if<double>(&reading.value);
                               real != nullptr && field.hasRange && reading.quality == "valid") {
                        const double slack = (field.maximum - field.minimum) * 1e-9;
                        const bool good = *real >= field.minimum - slack && *real <= field.maximum + slack;
                        EXPECT_TRUE(good || !told.insert(path + field.name).second) << id << ": " << *real;
                    }
                    const FieldInfo* quality = fieldOf(*event, std::string(field.name) + "ValueType");
                    if (quality != nullptr) {
                        EXPECT_TRUE(hasEnumerator(*quality, reading.quality) ||
                                    !told.insert(path + quality->name).second)
                            << id << ": " << reading.quality;
                    }
                }
            }
        }
    });
}

TEST(Samples, of_every_event_are_whole_and_can_be_sent) {
    SampleMaker maker;
    std::map<std::string, std::set<int>> keysOf;
    throughAllStories([&](const VehicleState& state, const std::string&) {
        if (std::fmod(state.time + 0.5, 10) > 1) {
            return;  // every 10 s is enough for so many
        }
        for (const auto& [path, event] : AllServices::get().events) {
            const auto samples = maker.make(path.substr(0, path.find('.')), *event, state, wallMs);
            for (const auto& sample : samples) {
                const int key = static_cast<int>(number(sample.at(keyField(*event).name)));
                keysOf[path].insert(key);
                const auto writer = event->writers().find(key);
                for (const auto& field : event->key().empty()               ? event->members()
                                         : writer != event->writers().end() ? writer->second
                                                                            : std::vector<std::string>()) {
                    ASSERT_EQ(sample.count(field), 1U) << path << "." << field;
                }
            }
            ASSERT_TRUE(event->send(samples)) << path << ": " << event->error();
        }
    });
    for (const auto& [path, event] : AllServices::get().events) {
        EXPECT_FALSE(keysOf[path].empty()) << path << " never has a sample";
        for (const auto& [key, fields] : event->writers()) {
            EXPECT_EQ(keysOf[path].count(key), 1U) << path << " never has key " << key;
        }
    }
}

TEST(Samples, of_different_services_tell_the_same_story_at_every_moment) {
    throughAllStories([](const VehicleState& state, const std::string& where) {
        SCOPED_TRACE(where + " at " + std::to_string(state.time));
        Story story(state);
        const double velocity = number(story.one("Chassis.velocityInfo").at("velocityPhysicalValue"));
        const auto position = story("GNSS.positions").at("fused");
        const auto axles = story("Chassis.axes");
        const double wheels = (number(axles.at("rear").at("wheelSpeedLeftPhysicalValue")) +
                               number(axles.at("rear").at("wheelSpeedRightPhysicalValue"))) /
                              2;
        EXPECT_NEAR(number(position.at("speed2D")) * 3.6, std::abs(velocity), 0.1);
        EXPECT_NEAR(wheels, std::abs(velocity), 0.1);
        EXPECT_NEAR(std::hypot(number(position.at("velocityNorthDirection")),
                               number(position.at("velocityEastDirection"))),
                    number(position.at("speed2D")), 0.01);
        EXPECT_NEAR(number(story("VisualOdometry.visualPositions").at("fused").at("vehicleSpeed")) * 3.6,
                    velocity, 0.1);

        const double charge =
            number(story.one("EnergySystem.highVoltageBatteries").at("relativeChargingStatePhysicalValue"));
        const auto ranges = story("DrivingRange.ranges");
        EXPECT_NEAR(number(ranges.at("electric").at("fillLevel")), charge, 0.01);
        EXPECT_NEAR(number(ranges.at("electric").at("rangePhysicalValue")),
                    number(ranges.at("electricFull").at("rangePhysicalValue")) * charge / 100, 0.5);
        EXPECT_NEAR(
            number(
                story("RouteBasedConsumption.energyContents").at("presentContent").at("energyPhysicalValue")),
            number(
                story("RouteBasedConsumption.energyContents").at("fullContent").at("energyPhysicalValue")) *
                charge / 100,
            0.01);
        EXPECT_EQ(text(ranges.at("fuel").at("rangeValueType")), "notAvailable");

        EXPECT_NEAR(number(story("Temperature.temperatures").at("interior").at("temperaturePhysicalValue")),
                    number(story.one("ClimateControl.status").at("insideTemperature")), 1e-6);

        const auto belts = story("SafetyBeltState.belts");
        const auto seats = story("SafetyBeltState.seatOccupancy");
        const bool driving = std::abs(velocity) > 1;
        if (driving && state.crashCounter == 0) {
            EXPECT_EQ(belts.count("driver"), 1U) << "nobody drives unbelted here";
            EXPECT_EQ(text(seats.at("driver").at("occupancy")), "occupied");
            EXPECT_EQ(text(story("CarBody.doors").at("frontLeft").at("doorState")), "closed");
            EXPECT_EQ(number(story.one("Immobilizer.info").at("isLocked")), 0);
            EXPECT_EQ(text(story.one("ParkingBrake.status").at("parkingBrakeStatus")), "released");
            EXPECT_EQ(text(story.one("Powertrain.status").at("driveReadiness")), "ready");
        }
        const bool dark = text(story.one("ExteriorLight.info").at("darknessIndication")) != "bright";
        const bool ignition = story("ClampControl.clamps").count("clamp15") == 1;
        EXPECT_EQ(story("ExteriorLight.lamps").count("lowBeamLeft"), dark && ignition ? 1U : 0U);
        if (number(story.one("OperationalSensorData.sensorData").at("isBrakePedalPressed")) != 0) {
            EXPECT_EQ(story("ExteriorLight.lamps").count("brakeCentre"), 1U);
        }
        const auto crash = story.one("Airbag.crashInfo");
        if (number(crash.at("isHighVoltageShutdownRequested")) != 0 && state.crashTime > 1) {
            EXPECT_EQ(text(story("HighVoltageCoordinator.notifications").at("crashDisconnect").at("value")),
                      "active");
            EXPECT_EQ(number(story("BlinkingLight.blinkingModes").at("hazardWarning").at("isActive")), 1);
            EXPECT_EQ(velocity, 0);
            EXPECT_NE(text(story("EmergencyCall.notifications").at("automaticCall").at("value")), "idle");
        }
    });
}

TEST(Samples, count_per_event_and_key) {
    SampleMaker maker;
    const VehicleState state;
    const auto* positions = AllServices::get().events.at("GNSS.positions");
    for (int i = 0; i < 3; ++i) {
        const auto samples = maker.make("GNSS", *positions, state, wallMs);
        ASSERT_EQ(samples.size(), 2U);
        EXPECT_EQ(number(samples[0].at("messageCounter")), i);
        EXPECT_EQ(number(samples[1].at("messageCounter")), i);
        EXPECT_EQ(number(samples[0].at("preciseLocalTimeSeconds")), 1'700'000'000);
        EXPECT_EQ(number(samples[0].at("preciseLocalTimeNanoseconds")), 123'000'000);
    }
}

TEST(Samples, without_satellites_say_so_and_carry_on_with_what_is_known) {
    DriveModel model;
    model.controls().tunnel = true;
    model.step(10);
    Story story(model.state());
    EXPECT_EQ(text(story("GNSS.positions").at("satellitesOnly").at("latitudeValueType")), "notAvailable");
    EXPECT_EQ(text(story("GNSS.positions").at("fused").at("latitudeValueType")), "valid");
    EXPECT_EQ(text(story.one("GNSS.positionsQuality").at("fixStatus")), "deadReckoning");
    EXPECT_EQ(number(story.one("GNSS.positionsQuality").at("satellitesUsed")), 0);
}

TEST(Samples, follow_the_scenario_s_overrides) {
    SampleMaker maker;
    const VehicleState state;
    const auto* positions = AllServices::get().events.at("GNSS.positions");
    FieldOverride absent{"GNSS", "positions", "latitude", 2, 0, 0, std::nullopt, kyo::Json::Value()};
    FieldOverride invalid{"GNSS", "positions", "longitudeValueType", std::nullopt,
                          0,      0,           std::nullopt,         "invalid"};
    FieldOverride high{"GNSS", "positions", "altitudeMeanSeaLevel", 1, 0, 0, std::nullopt, 4000.5};
    FieldOverride other{"Temperature", "positions", "speed2D", std::nullopt, 0, 0, std::nullopt, 99};
    const auto samples = maker.make("GNSS", *positions, state, wallMs, {&absent, &invalid, &high, &other});
    EXPECT_EQ(samples[0].count("latitude"), 1U);
    EXPECT_EQ(samples[1].count("latitude"), 0U);
    EXPECT_EQ(text(samples[0].at("longitudeValueType")), "invalid");
    EXPECT_EQ(number(samples[0].at("altitudeMeanSeaLevel")), 4000.5);
    EXPECT_EQ(number(samples[0].at("speed2D")), 0);
    AllServices::get().events.at("GNSS.positions")->send(samples);
    EXPECT_EQ(positions->error(), "");
}

TEST(Samples, of_an_event_without_rules_are_plausible) {
    const RuleBook empty;
    SampleMaker maker(empty);
    VehicleState state;
    for (const auto& [path, event] : AllServices::get().events) {
        for (state.time = 0; state.time < 100; state.time += 33) {
            const auto samples = maker.make(path.substr(0, path.find('.')), *event, state, wallMs);
            EXPECT_TRUE(event->send(samples)) << path << ": " << event->error();
            EXPECT_FALSE(samples.empty()) << path;
        }
    }
}

TEST(FieldValue, is_brought_into_the_range_and_type_of_its_field) {
    const FieldInfo percent{"p", "uint8", "%", "", true, 0, 100, {}};
    EXPECT_EQ(number(fit(Reading(130.0), percent)), 100);
    EXPECT_EQ(number(fit(Reading(-3.0), percent)), 0);
    EXPECT_EQ(number(fit(Reading(41.6), percent)), 42);
    EXPECT_EQ(number(fit(Reading(std::nan("")), percent)), 0);
    const FieldInfo counter{"c", "uint8", "", "", false, 0, 0, {}};
    EXPECT_EQ(number(fit(Reading(std::uint64_t{257}), counter)), 1) << "counters wrap";
    EXPECT_EQ(number(fit(Reading(300.0), counter)), 255);
    const FieldInfo state{"s", "uint8", "", "", false, 0, 0, {{"off", 0}, {"on", 1}}};
    EXPECT_EQ(text(fit(Reading("on"), state)), "on");
    EXPECT_EQ(text(fit(Reading("elsewhere"), state)), "off");
}

}  // namespace
