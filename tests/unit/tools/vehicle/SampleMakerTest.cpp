// The rules must match the descriptions of all services, and the services must be consistent.
#include "tests/support/Test.h"
#include "tools/vehicle/SampleMaker.h"

#include <cmath>

namespace {

using namespace vlmVehicle;
using namespace qdr::services;

constexpr std::uint64_t wallMs = 1'700'000'000'123;

/// The events of all described services, by "Service.event".
const std::map<std::string, DescribedEvent*>& allEvents() {
    static std::vector<std::unique_ptr<DescribedService>> services;
    static std::map<std::string, DescribedEvent*> events;
    if (services.empty()) {
        for (const auto& name : describedServiceNames()) {
            for (auto* event : services.emplace_back(makeDescribedService(name))->events()) {
                events[name + "." + event->name()] = event;
            }
        }
    }
    return events;
}

/// Calls `check` with states throughout the example scenarios and the plain drive.
void throughAllStories(const std::function<void(const VehicleState&, const std::string& where)>& check) {
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
            check(model.state(), name + "/" + player.phase());
            player.advance(model, 1);
            model.step(1);
        }
    }
}

/// NaN for a text, since it equals nothing.
double number(const FieldValue& value) {
    return std::visit(
        [](const auto& v) {
            if constexpr (std::is_arithmetic_v<std::decay_t<decltype(v)>>) {
                return static_cast<double>(v);
            } else {
                return std::nan("");
            }
        },
        value);
}

std::string text(const FieldValue& value) {
    return std::holds_alternative<std::string>(value) ? std::get<std::string>(value) : "";
}

/// The samples of one event by the enumerator of their key.
std::map<std::string, FieldValues> samplesOf(const VehicleState& state, const std::string& path) {
    const auto* event = allEvents().at(path);
    const auto& key = event->indexField();
    std::map<std::string, FieldValues> result;
    for (const auto& sample : SampleMaker().make(path.substr(0, path.find('.')), *event, state, wallMs)) {
        for (const auto& enumerator : key.enumerators) {
            if (enumerator.value == number(sample.at(key.name))) {
                result[enumerator.name] = sample;
            }
        }
    }
    return result;
}

// A rule with a wrong name would have no effect.
TEST(Rules, NameEventsAndFieldsThatAreDescribed) {
    const auto& events = allEvents();
    for (const auto& name : RuleBook::standard().names()) {
        const auto dot = name.rfind('.');
        const auto event = events.find(name.substr(0, dot));
        ASSERT_NE(event, events.end()) << name;
        if (dot + 1 != name.size()) {
            EXPECT_NE(event->second->find(name.substr(dot + 1)), nullptr) << name;
        }
    }
}

TEST(Samples, OfEveryEventAndKeyComeAndCanBeSent) {
    SampleMaker maker;
    std::map<std::string, std::set<int>> keysOf;
    throughAllStories([&](const VehicleState& state, const std::string&) {
        if (std::fmod(state.time + 0.5, 10) > 1) {
            return;  // every 10 s is enough
        }
        for (const auto& [path, event] : allEvents()) {
            const auto samples = maker.make(path.substr(0, path.find('.')), *event, state, wallMs);
            for (const auto& sample : samples) {
                keysOf[path].insert(static_cast<int>(number(sample.at(event->indexField().name))));
            }
            ASSERT_TRUE(event->send(samples)) << path << ": " << event->error();
        }
    });
    for (const auto& [path, event] : allEvents()) {
        EXPECT_FALSE(keysOf[path].empty()) << path << " never has a sample";
        for (const auto& [key, fields] : event->writers()) {
            EXPECT_EQ(keysOf[path].count(key), 1U) << path << " never has key " << key;
        }
    }
}

TEST(Samples, OfDifferentServicesAreConsistentAtEveryMoment) {
    throughAllStories([](const VehicleState& state, const std::string& where) {
        SCOPED_TRACE(where + " at " + std::to_string(state.time));
        const auto story = [&](const char* path) { return samplesOf(state, path); };
        const auto one = [&](const char* path) { return story(path).begin()->second; };
        const double velocity = number(one("Chassis.velocityInfo").at("velocityPhysicalValue"));
        const auto position = story("GNSS.positions").at("fused");
        const auto axle = story("Chassis.axes").at("rear");
        const double wheels = number(axle.at("wheelSpeedLeftPhysicalValue")) / 2 +
                              number(axle.at("wheelSpeedRightPhysicalValue")) / 2;
        const double speed = number(position.at("speed2D"));
        EXPECT_NEAR(speed * 3.6, std::abs(velocity), 0.1);
        EXPECT_NEAR(wheels, std::abs(velocity), 0.1);
        EXPECT_NEAR(std::hypot(number(position.at("velocityNorthDirection")),
                               number(position.at("velocityEastDirection"))),
                    speed, 0.01);
        EXPECT_EQ(text(story("GNSS.positions").at("satellitesOnly").at("latitudeValueType")) == "valid",
                  text(one("GNSS.positionsQuality").at("fixStatus")) != "deadReckoning");

        const double charge =
            number(one("EnergySystem.highVoltageBatteries").at("relativeChargingStatePhysicalValue"));
        const auto ranges = story("DrivingRange.ranges");
        EXPECT_NEAR(number(ranges.at("electric").at("fillLevel")), charge, 0.01);
        EXPECT_NEAR(number(ranges.at("electric").at("rangePhysicalValue")),
                    number(ranges.at("electricFull").at("rangePhysicalValue")) * charge / 100, 0.5);
        EXPECT_NEAR(number(story("Temperature.temperatures").at("interior").at("temperaturePhysicalValue")),
                    number(one("ClimateControl.status").at("insideTemperature")), 1e-6);

        if (std::abs(velocity) > 1 && state.crashCounter == 0) {
            EXPECT_EQ(story("SafetyBeltState.belts").count("driver"), 1U) << "nobody drives unbelted here";
            EXPECT_EQ(text(story("CarBody.doors").at("frontLeft").at("doorState")), "closed");
            EXPECT_EQ(text(one("ParkingBrake.status").at("parkingBrakeStatus")), "released");
            EXPECT_EQ(text(one("Powertrain.status").at("driveReadiness")), "ready");
        }
        const bool isDark = text(one("ExteriorLight.info").at("darknessIndication")) != "bright";
        const bool isOn = story("ClampControl.clamps").count("clamp15") == 1;
        EXPECT_EQ(story("ExteriorLight.lamps").count("lowBeamLeft"), isDark && isOn ? 1U : 0U);
        if (number(one("Airbag.crashInfo").at("isHighVoltageShutdownRequested")) != 0 &&
            state.crashTime > 1) {
            EXPECT_EQ(text(story("HighVoltageCoordinator.notifications").at("crashDisconnect").at("value")),
                      "active");
            EXPECT_EQ(velocity, 0);
            EXPECT_NE(text(story("EmergencyCall.notifications").at("automaticCall").at("value")), "idle");
        }
    });
}

TEST(Samples, CountPerEventAndKeyAndFollowTheScenarioSOverrides) {
    SampleMaker maker;
    const VehicleState state;
    const auto* positions = allEvents().at("GNSS.positions");
    const FieldOverride absent{"GNSS", "positions", "latitude", 2, 0, 0, std::nullopt, kyo::Json::Value()};
    const FieldOverride high{"GNSS", "positions", "altitudeMeanSeaLevel", 1, 0, 0, std::nullopt, 4000.5};
    const FieldOverride other{"Temperature", "positions", "speed2D", std::nullopt, 0, 0, std::nullopt, 99};
    for (int i = 0; i < 3; ++i) {
        const auto samples = maker.make("GNSS", *positions, state, wallMs, {&absent, &high, &other});
        ASSERT_EQ(samples.size(), 2U);
        for (const auto& sample : samples) {
            EXPECT_EQ(number(sample.at("messageCounter")), i);
            EXPECT_EQ(number(sample.at("preciseLocalTimeSeconds")), 1'700'000'000);
            EXPECT_EQ(number(sample.at("preciseLocalTimeNanoseconds")), 123'000'000);
        }
        EXPECT_EQ(number(samples[0].at("speed2D")), 0);
        EXPECT_EQ(samples[0].count("latitude"), 1U);
        EXPECT_EQ(samples[1].count("latitude"), 0U);
        EXPECT_EQ(number(samples[0].at("altitudeMeanSeaLevel")), 4000.5);
    }
}

TEST(FieldValue, IsBroughtIntoTheRangeAndTypeOfItsField) {
    const FieldInfo percent{"p", "uint8", "%", "", true, 0, 100, {}};
    EXPECT_EQ(number(fit(Reading(130.0), percent)), 100);
    EXPECT_EQ(number(fit(Reading(-3.0), percent)), 0);
    EXPECT_EQ(number(fit(Reading(41.6), percent)), 42);
    EXPECT_EQ(number(fit(Reading(std::nan("")), percent)), 0);
    const FieldInfo counter{"c", "uint8", "", "", false, 0, 0, {}};
    EXPECT_EQ(number(fit(Reading(std::uint64_t{257}), counter)), 1) << "counters wrap";
    const FieldInfo state{"s", "uint8", "", "", false, 0, 0, {{"off", 0}, {"on", 1}}};
    EXPECT_EQ(text(fit(Reading("on"), state)), "on");
    EXPECT_EQ(text(fit(Reading("elsewhere"), state)), "off");
}

}  // namespace
