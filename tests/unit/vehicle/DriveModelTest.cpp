#include "tools/vehicle/DriveModel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tools/vehicle/Names.h"

namespace {

using namespace vlmVehicle;

constexpr double metresPerDegree = 111320;

/// km from a place, on the level.
double kilometresFrom(double latitude, double longitude, const VehicleState& s) {
    const double north = (s.latitude - latitude) * metresPerDegree;
    const double east = (s.longitude - longitude) * metresPerDegree * std::cos(latitude * M_PI / 180);
    return std::hypot(north, east) / 1000;
}

TEST(DriveModel, reaches_the_wanted_speed_and_holds_it) {
    DriveModel model;
    model.controls().targetSpeed = 80;
    model.step(5);
    EXPECT_GT(model.state().speedKmh(), 20);
    EXPECT_LT(model.state().speedKmh(), 50) << "no car jumps to its speed";
    EXPECT_GT(model.state().acceleratorPedal, 20);
    model.step(40);
    EXPECT_NEAR(model.state().speedKmh(), 80, 0.5);
    EXPECT_NEAR(model.state().acceleration, 0, 0.05);
    model.controls().targetSpeed = 0;
    model.step(2);
    EXPECT_TRUE(model.state().brakeLight());
    model.step(40);
    EXPECT_EQ(model.state().speed, 0);
    EXPECT_GT(model.state().standstillTime, 10);
}

TEST(DriveModel, does_not_drive_off_in_park_with_the_brake_applied_or_plugged_in) {
    for (const char* obstacle : {"gear", "parkingBrake", "plugged", "ignition"}) {
        DriveModel model;
        std::string error;
        const bool isIgnition = std::string(obstacle) == "ignition";
        ASSERT_TRUE(setControl(model.controls(), obstacle,
                               isIgnition || std::string(obstacle) == "gear" ? "0" : "1", error));
        model.controls().targetSpeed = 50;
        model.step(10);
        EXPECT_EQ(model.state().speed, 0) << obstacle;
    }
}

TEST(DriveModel, way_place_speed_and_odometer_agree) {
    DriveModel model;
    const double latitude = model.state().latitude;
    const double longitude = model.state().longitude;
    const double odometer = model.state().odometer;
    model.state().heading = 62;
    model.controls().targetSpeed = 100;
    model.step(120);
    const double way = model.state().odometer - odometer;
    EXPECT_NEAR(way, 120 * 100 / 3600.0, 0.35) << "about two minutes at that speed";
    EXPECT_NEAR(kilometresFrom(latitude, longitude, model.state()), way, way * 0.002);
    EXPECT_NEAR(model.state().tripDistance, way, 1e-6);
    EXPECT_NEAR(model.state().heading, 62, 1e-9);
}

TEST(DriveModel, wheels_agree_with_speed_and_with_the_bend) {
    DriveModel model;
    model.controls().targetSpeed = 36;
    model.step(30);
    const auto& s = model.state();
    for (const double wheel :
         {s.front.wheelSpeedLeft, s.front.wheelSpeedRight, s.rear.wheelSpeedLeft, s.rear.wheelSpeedRight}) {
        EXPECT_NEAR(wheel, s.speed, 1e-9);
    }
    model.controls().curvature = 50;  // a radius of 20 m to the right
    model.step(1);
    EXPECT_NEAR(s.yawRate, 10.0 / 20 * 180 / M_PI, 0.5);
    EXPECT_NEAR(s.rear.wheelSpeedLeft - s.rear.wheelSpeedRight, Car::track * s.yawRate * M_PI / 180, 1e-9);
    EXPECT_GT(s.front.wheelSpeedRight, s.rear.wheelSpeedRight) << "the front wheels go the longer way";
    EXPECT_NEAR((s.rear.wheelSpeedLeft + s.rear.wheelSpeedRight) / 2, s.speed, 1e-9);
    EXPECT_LT(s.lateralAcceleration, -4) << "outwards is left, which is positive; the car is pushed inwards";
    const double heading = s.heading;
    model.step(4);
    EXPECT_NEAR(std::fmod(s.heading - heading + 360, 360), s.yawRate * 4, 3);
}

TEST(DriveModel, the_battery_loses_what_its_power_says_and_gets_part_of_it_back) {
    DriveModel model;
    model.controls().targetSpeed = 100;
    const double before = model.state().stateOfCharge;
    double energy = 0;  // kWh
    double recuperated = 0;
    const double counted = model.state().energyRecuperated;
    for (int i = 0; i < 3000; ++i) {
        if (i == 2400) {
            model.controls().targetSpeed = 0;
        }
        model.step(0.02);
        energy += model.state().batteryPower * 0.02 / 3600;
        recuperated += std::max(0.0, -model.state().batteryPower) * 0.02 / 3600;
    }
    EXPECT_NEAR((before - model.state().stateOfCharge) / 100 * Car::usableEnergy, energy, 1e-6);
    EXPECT_GT(recuperated, 0.05);
    EXPECT_LT(recuperated, 0.5 * Car::mass * 28 * 28 / 3.6e6) << "never more than there was of motion";
    EXPECT_NEAR(model.state().energyRecuperated - counted, recuperated, 1e-6);
}

TEST(DriveModel, range_follows_charge_and_consumption) {
    DriveModel fast;
    DriveModel slow;
    for (auto [model, speed] : {std::pair{&fast, 160}, {&slow, 60}}) {
        model->controls().climate = false;
        model->controls().targetSpeed = speed;
        model->step(900);
        const auto& s = model->state();
        EXPECT_NEAR(s.range(), s.stateOfCharge / 100 * Car::usableEnergy / s.averageConsumption * 100, 1e-6);
    }
    EXPECT_GT(fast.state().averageConsumption, slow.state().averageConsumption + 8);
    EXPECT_LT(fast.state().range(), slow.state().range());
}

TEST(DriveModel, cold_costs_range_and_power) {
    DriveModel cold;
    DriveModel mild;
    cold.controls().outsideTemperature = -15;
    cold.state().batteryTemperature = -12;
    cold.state().interiorTemperature = -15;
    for (auto* model : {&cold, &mild}) {
        model->controls().targetSpeed = 50;
        model->step(600);
    }
    EXPECT_GT(cold.state().climatePower, 1);
    EXPECT_GT(cold.state().recentConsumption, mild.state().recentConsumption + 4);
    EXPECT_LT(cold.state().availablePower(), mild.state().availablePower());
    EXPECT_GT(cold.state().interiorTemperature, 15) << "ten minutes of heating";
}

TEST(DriveModel, charges_up_to_its_limit_and_slower_when_full) {
    DriveModel model;
    auto& c = model.controls();
    model.state().stateOfCharge = 20;
    model.state().batteryTemperature = 25;
    c.plugged = true;
    c.chargeDc = true;
    c.chargePower = 150;
    model.step(1);
    const double atFirst = -model.state().batteryPower;
    EXPECT_GT(atFirst, 120);
    model.step(1200);
    EXPECT_TRUE(model.state().charging);
    EXPECT_LT(-model.state().batteryPower, atFirst);
    model.step(3600);
    EXPECT_FALSE(model.state().charging);
    EXPECT_TRUE(model.state().chargeCompleted);
    EXPECT_NEAR(model.state().stateOfCharge, c.chargeLimit, 0.5);
    EXPECT_EQ(model.state().sinceCharge, 0);
}

TEST(DriveModel, a_crash_stops_the_car_and_switches_its_high_voltage_off) {
    DriveModel model;
    auto& c = model.controls();
    c.targetSpeed = 60;
    c.locked = true;
    model.step(30);
    c.impact = Impact::Front;
    model.step(0.3);
    const auto& s = model.state();
    EXPECT_EQ(s.speed, 0);
    EXPECT_EQ(s.crashSeverity, 4);
    EXPECT_EQ(s.crashCounter, 1);
    EXPECT_NEAR(s.deltaVelocity, -54, 1);
    EXPECT_FALSE(s.highVoltageOn);
    EXPECT_TRUE(c.hazard);
    EXPECT_FALSE(c.locked);
    EXPECT_TRUE(s.doorsUnlockedByCrash);
    c.targetSpeed = 50;
    model.step(10);
    EXPECT_EQ(s.speed, 0) << "it does not drive any more";
    EXPECT_EQ(s.packVoltage, 0);

    DriveModel bump;
    bump.controls().targetSpeed = 5;
    bump.step(10);
    bump.controls().impact = Impact::Front;
    bump.step(1);
    EXPECT_TRUE(bump.state().highVoltageOn) << "a light touch is no accident";
}

TEST(DriveModel, keeps_its_distance_to_the_car_ahead) {
    DriveModel model;
    model.controls().targetSpeed = 120;
    model.controls().cruiseControl = true;
    model.controls().leadDistance = 100;
    model.controls().leadSpeed = 80;
    model.step(90);
    EXPECT_NEAR(model.state().speedKmh(), 80, 1);
    EXPECT_NEAR(model.state().gap, 4 + 1.6 * 80 / 3.6, 3);
    model.controls().leadSpeed = 0;
    model.step(40);
    EXPECT_EQ(model.state().speed, 0);
    EXPECT_GT(model.state().gap, 1.9);
}

TEST(DriveModel, goes_where_a_record_goes_and_derives_the_rest_from_it) {
    DriveModel model;
    double latitude = 50;
    for (int i = 0; i < 500; ++i) {  // 10 s due north at 20 m/s
        latitude += 20 * 0.02 / metresPerDegree;
        model.follow(latitude, 7, 120, 20, 0);
        model.step(0.02);
    }
    EXPECT_NEAR(model.state().latitude, latitude, 1e-9);
    EXPECT_EQ(model.state().speed, 20);
    EXPECT_NEAR(model.state().tripDistance, 0.2, 0.001);
    EXPECT_GT(model.state().drivePower, 3);
    EXPECT_NEAR(model.state().front.wheelSpeedLeft, 20, 0.1);
}

TEST(DriveModel, gives_the_same_drive_for_the_same_seed_however_it_is_stepped) {
    DriveModel once(7);
    DriveModel often(7);
    DriveModel other(8);
    for (auto* model : {&once, &often, &other}) {
        model->controls().targetSpeed = 70;
        model->controls().curvature = 4;
    }
    once.step(20);
    other.step(20);
    for (int i = 0; i < 1000; ++i) {
        often.step(0.02);
    }
    EXPECT_NEAR(once.state().latitude, often.state().latitude, 1e-9);
    EXPECT_NEAR(once.state().stateOfCharge, often.state().stateOfCharge, 1e-9);
    EXPECT_NEAR(once.state().fusedErrorNorth, often.state().fusedErrorNorth, 1e-6);
    EXPECT_NE(once.state().fusedErrorNorth, other.state().fusedErrorNorth);
}

TEST(DriveModel, stays_a_possible_car_whatever_is_done_to_it) {
    std::mt19937 random(3);
    DriveModel model;
    const auto& controls = controlNames();
    for (int i = 0; i < 20000; ++i) {
        const auto& control = controls[random() % controls.size()];
        if (control.name != "impact" || random() % 50 == 0) {
            const double value = control.words.empty()
                                     ? std::uniform_real_distribution<double>(-300, 300)(random)
                                     : static_cast<double>(random() % control.words.size());
            control.set(model.controls(), value);
        }
        model.step(0.1);
        const auto& s = model.state();
        const double all = s.latitude + s.longitude + s.altitude + s.heading + s.speed + s.acceleration +
                           s.yawRate + s.gap + s.batteryPower + s.stateOfCharge + s.batteryTemperature +
                           s.packVoltage + s.interiorTemperature + s.front.torque +
                           s.rear.windingTemperature + s.range() + s.dewPoint() + s.fusedErrorEast;
        ASSERT_TRUE(std::isfinite(all)) << "after setting " << control.name;
        ASSERT_LE(std::abs(s.speedKmh()), 310) << control.name;
        ASSERT_TRUE(s.stateOfCharge >= 0 && s.stateOfCharge <= 100);
        ASSERT_TRUE(s.heading >= 0 && s.heading < 360);
        ASSERT_LE(std::abs(s.latitude), 90);
    }
}

}  // namespace
