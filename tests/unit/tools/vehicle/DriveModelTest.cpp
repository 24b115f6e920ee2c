#include "tools/vehicle/DriveModel.h"

#include <cmath>
#include <random>

#include "tests/support/Test.h"
#include "tools/vehicle/Names.h"

namespace {

using namespace vlmVehicle;

constexpr double metresPerDegree = 111320;

TEST(DriveModel, WayPlaceAndEnergyAreWhatSpeedAndPowerMakeOfThem) {
    DriveModel model;
    const auto& s = model.state();
    const VehicleState before = s;
    model.state().heading = 62;
    model.controls().targetSpeed = 100;
    double way = 0;          // km
    double energy = 0;       // kWh
    double recuperated = 0;  // kWh
    for (int i = 0; i < 3000; ++i) {
        if (i == 100) {
            EXPECT_LT(s.speedKmh(), 50) << "no car jumps to its speed";
        }
        if (i == 2000) {
            EXPECT_NEAR(s.speedKmh(), 100, 0.5);
            model.controls().targetSpeed = 0;
        }
        model.step(0.02);
        way += s.speed * 0.02 / 1000;
        energy += s.batteryPower * 0.02 / 3600;
        recuperated += std::max(0.0, -s.batteryPower) * 0.02 / 3600;
    }
    EXPECT_GT(way, 1);
    EXPECT_EQ(s.speed, 0);
    EXPECT_NEAR(s.odometer - before.odometer, way, way * 0.002);
    EXPECT_NEAR(s.tripDistance, way, way * 0.002);
    const double north = (s.latitude - before.latitude) * metresPerDegree;
    const double east =
        (s.longitude - before.longitude) * metresPerDegree * std::cos(before.latitude * M_PI / 180);
    EXPECT_NEAR(std::hypot(north, east) / 1000, way, way * 0.002);
    EXPECT_NEAR(std::atan2(east, north) * 180 / M_PI, 62, 0.2);
    EXPECT_NEAR((before.stateOfCharge - s.stateOfCharge) / 100 * Car::usableEnergy, energy, 1e-6);
    EXPECT_GT(recuperated, 0.05);
    EXPECT_NEAR(s.energyRecuperated - before.energyRecuperated, recuperated, 1e-6);
}

TEST(DriveModel, GoesWhereARecordGoesAndDerivesTheRestFromIt) {
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

TEST(DriveModel, GivesTheSameDriveForTheSameSeedHoweverItIsStepped) {
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

TEST(DriveModel, StaysAPossibleCarUnderAllControls) {
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
