#include "tools/vehicle/DriveModel.h"

#include <algorithm>
#include <cmath>

namespace vlmVehicle {

namespace {

constexpr double gravity = 9.81;
constexpr double pi = 3.14159265358979323846;
constexpr double metresPerDegree = 111320;  // of latitude
constexpr double longestStep = 0.02;        // s

double towards(double value, double goal, double most) {
    return value + std::clamp(goal - value, -most, most);
}

/// Exponential approach with a time constant.
double approach(double value, double goal, double dt, double timeConstant) {
    return value + (goal - value) * (1 - std::exp(-dt / timeConstant));
}

double wrapDegrees(double angle) {
    angle = std::fmod(angle, 360);
    return angle < 0 ? angle + 360 : angle;
}

}  // namespace

double VehicleState::rangeWhenFull() const {
    return 100 * Car::usableEnergy / std::max(averageConsumption, 8.0);
}

double VehicleState::range() const {
    return rangeWhenFull() * stateOfCharge / 100;
}

double VehicleState::dewPoint() const {
    // Magnus' formula over water.
    const double t = controls.outsideTemperature;
    const double g = std::log(std::clamp(controls.humidity, 1.0, 100.0) / 100) + 17.62 * t / (243.12 + t);
    return 243.12 * g / (17.62 - g);
}

double VehicleState::availablePower() const {
    if (!highVoltageOn || stateOfCharge <= 0) {
        return 0;
    }
    const double cold = std::clamp((batteryTemperature + 25) / 35, 0.3, 1.0);
    const double empty = std::clamp(stateOfCharge / 12, 0.2, 1.0);
    return 220 * cold * empty;
}

DriveModel::DriveModel(unsigned seed) : m_previous(m_state.controls), m_random(seed) {}

void DriveModel::follow(double latitude, double longitude, double altitude, double speed, double heading) {
    m_fix = {latitude, longitude, altitude, speed, heading};
    m_following = true;
}

void DriveModel::step(double seconds) {
    while (seconds > 0) {
        const double dt = std::min(seconds, longestStep);
        shortStep(dt);
        seconds -= dt;
    }
}

void DriveModel::shortStep(double dt) {
    auto& s = m_state;
    s.time += dt;
    if (s.controls.impact != Impact::None) {
        s.impact = s.controls.impact;
        s.controls.impact = Impact::None;
        s.crashTime = 0;
        ++s.crashCounter;
        // The change of speed that the crush zone leaves.
        const double byOther = s.impact == Impact::Rear ? 8.0 : s.impact == Impact::Front ? 0.0 : 4.0;
        const double change = std::max(std::abs(s.speed), byOther) * 0.9;
        s.deltaVelocity = 3.6 * (s.impact == Impact::Front ? -change : change);
        s.crashSeverity = change < 3 ? 1 : change < 5 ? 2 : change < 12 ? 3 : 4;
        m_strike = 0.12;
        m_strikeDeceleration = s.speed / m_strike;
    }
    if (m_strike > 0) {
        strike(dt);
    } else if (m_following) {
        followRecord(dt);
    } else {
        drive(dt);
    }
    wheels();
    energy(dt);
    temperatures(dt);
    receiver(dt);
    clocks(dt);
    m_previous = s.controls;
}

/// The impact, about a tenth of a second: the car stops regardless of the driver.
void DriveModel::strike(double dt) {
    auto& s = m_state;
    m_strike -= dt;
    s.acceleration = -m_strikeDeceleration;
    s.speed = m_strike <= 0 ? 0 : s.speed - m_strikeDeceleration * dt;
    s.acceleratorPedal = 0;
    s.brakePedal = true;
    if (m_strike <= 0) {
        m_strike = 0;
        s.acceleration = 0;
        if (s.crashSeverity >= 2) {  // the car's own reaction to an accident
            s.highVoltageOn = false;
            s.controls.hazard = true;
            s.controls.locked = false;
            s.doorsUnlockedByCrash = true;
            s.controls.targetSpeed = 0;
            s.controls.cruiseControl = false;
        }
    }
}

void DriveModel::drive(double dt) {
    const double wanted = wantedSpeed(dt);
    accelerate(wanted, dt);
    steer(dt);
    pedals(wanted);
}

bool DriveModel::canDrive() const {
    const auto& c = m_state.controls;
    return c.ignition && m_state.highVoltageOn && !c.parkingBrake && c.gear != Gear::Park &&
           c.gear != Gear::Neutral && !c.plugged && m_state.stateOfCharge > 0;
}

/// Returns the speed that the driver or the distance to the car ahead asks for, in m/s. Moves the car ahead.
double DriveModel::wantedSpeed(double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    double wanted = canDrive() ? c.targetSpeed / 3.6 : 0;
    wanted = c.gear == Gear::Reverse ? std::min(wanted, 0.0) : std::max(wanted, 0.0);

    if (c.leadDistance != m_previous.leadDistance) {
        s.gap = c.leadDistance;
    }
    s.gapRate = s.gap > 0 ? c.leadSpeed / 3.6 - s.speed : 0;
    if (s.gap > 0) {
        s.gap = std::max(2.0, s.gap + s.gapRate * dt);
        const double safe = 4 + 1.6 * std::max(s.speed, 0.0);
        if (c.cruiseControl || s.gap < safe) {  // keeps the distance to the car ahead
            wanted = std::min(wanted, std::max(0.0, c.leadSpeed / 3.6 + (s.gap - safe) / 3));
        }
        if (s.gap > 250) {
            s.gap = 0;
        }
    }
    return wanted;
}

void DriveModel::accelerate(double wanted, double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    const double grip = gravity * c.friction;
    double goal = std::clamp((wanted - s.speed) / 1.4, -2.8, c.mode == DrivingMode::Sport ? 3.2 : 1.9);
    const double resisting = gravity * c.slope / 100;
    const double most = std::min(
        grip, s.availablePower() * 1000 / (Car::mass * std::max(std::abs(s.speed), 5.0)) - resisting);
    goal = std::min(goal, std::max(most, 0.0));
    if (c.emergencyBraking && s.moving()) {
        goal = s.speed > 0 ? -std::min(9.5, grip) : std::min(9.5, grip);
        s.acceleration = goal;  // at once
    }
    s.antilockIntervention = s.moving() && goal <= -0.95 * std::min(grip, 9.5);
    s.acceleration = towards(s.acceleration, goal, 4.0 * dt);
    const double before = s.speed;
    s.speed += s.acceleration * dt;
    const bool stops =
        (wanted == 0 || c.emergencyBraking) && (before * s.speed < 0 || std::abs(s.speed) < 0.08);
    if (stops) {
        s.speed = 0;
        s.acceleration = 0;
    }
}

/// Moves the car along the curve of the road, as far as its tyres can follow it.
void DriveModel::steer(double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    const double grip = gravity * c.friction;
    double curvature = c.curvature / 1000;
    const double sharpest = s.moving() ? grip / (s.speed * s.speed) : 1;
    s.stabilityIntervention = std::abs(curvature) > 0.85 * sharpest;
    curvature = std::clamp(curvature, -sharpest, sharpest);
    s.yawRate = s.speed * curvature * 180 / pi;
    s.heading = wrapDegrees(s.heading + s.yawRate * dt);
    const double way = s.speed * dt;
    const double north = way * std::cos(s.heading * pi / 180);
    const double east = way * std::sin(s.heading * pi / 180);
    s.latitude = std::clamp(s.latitude + north / metresPerDegree, -89.9, 89.9);
    s.longitude += east / (metresPerDegree * std::cos(s.latitude * pi / 180));
    if (s.longitude > 180) {
        s.longitude -= 360;
    } else if (s.longitude < -180) {
        s.longitude += 360;
    }
    s.climbRate = s.speed * c.slope / 100;
    s.altitude = std::clamp(s.altitude + s.climbRate * dt, -400.0, 9000.0);
}

/// Sets the pedals to the positions that give this acceleration.
void DriveModel::pedals(double wanted) {
    auto& s = m_state;
    const auto& c = s.controls;
    const double resisting = gravity * c.slope / 100;
    const double rolling = s.moving() ? 0.25 + resisting + 0.00017 * s.speed * s.speed : 0;
    const double demand = s.acceleration + rolling;
    s.acceleratorPedal = canDrive() && demand > 0 && (s.moving() || wanted != 0)
                             ? std::clamp(demand / 3.5 * 100, 0.0, 100.0)
                             : 0;
    const bool holds = c.ignition && !s.moving() && !c.parkingBrake && c.gear != Gear::Park && wanted == 0;
    s.brakePedal = holds || (s.moving() && s.acceleration < -1.6);
}

void DriveModel::followRecord(double dt) {
    auto& s = m_state;
    const double before = s.speed;
    const double headingBefore = s.heading;
    const double altitudeBefore = s.altitude;
    s.latitude = m_fix.latitude;
    s.longitude = m_fix.longitude;
    s.altitude = m_fix.altitude;
    s.speed = m_fix.speed;
    s.heading = wrapDegrees(m_fix.heading);
    // A recording is coarse: values derived from it are smoothed over half a second.
    s.acceleration = approach(s.acceleration, std::clamp((s.speed - before) / dt, -12.0, 12.0), dt, 0.5);
    double turn = s.heading - headingBefore;
    turn = turn > 180 ? turn - 360 : turn < -180 ? turn + 360 : turn;
    s.yawRate = s.moving() ? approach(s.yawRate, std::clamp(turn / dt, -60.0, 60.0), dt, 0.5) : 0;
    s.climbRate = approach(s.climbRate, std::clamp((s.altitude - altitudeBefore) / dt, -20.0, 20.0), dt, 2);
    s.gap = 0;
    s.gapRate = 0;
    s.acceleratorPedal = s.moving() ? std::clamp((s.acceleration + 0.3) / 3.5 * 100, 0.0, 100.0) : 0;
    s.brakePedal = !s.moving() || s.acceleration < -1.6;
}

void DriveModel::wheels() {
    auto& s = m_state;
    const double turn = s.yawRate * pi / 180;  // rad/s, to the right: the left wheels are faster
    const double difference = turn * Car::track / 2;
    s.rear.wheelSpeedLeft = s.speed + difference;
    s.rear.wheelSpeedRight = s.speed - difference;
    // The front wheels also move sideways, by the wheelbase.
    const double sideways = turn * Car::wheelbase;
    const double sign = s.speed < 0 ? -1 : 1;
    s.front.wheelSpeedLeft = sign * std::hypot(s.rear.wheelSpeedLeft, sideways);
    s.front.wheelSpeedRight = sign * std::hypot(s.rear.wheelSpeedRight, sideways);
    s.lateralAcceleration = -s.speed * turn;
    for (Axle* axle : {&s.front, &s.rear}) {
        const double mean = (axle->wheelSpeedLeft + axle->wheelSpeedRight) / 2;
        axle->rotation = mean / Car::tyreCircumference * 60 * Car::gearRatio;
    }
}

void DriveModel::energy(double dt) {
    auto& s = m_state;
    drivePower();
    const double lights = s.controls.ignition && s.dark() ? 0.12 : 0.03;
    s.auxiliaryPower = s.highVoltageOn ? (s.controls.ignition ? 0.35 + lights : 0.02) + s.climatePower : 0;
    s.batteryPower = batteryPower(dt);
    const double hours = dt / 3600;
    battery(s.batteryPower, hours);
    distance(s.batteryPower, dt);

    const bool converter = s.highVoltageOn && (s.controls.ignition || s.charging);
    s.lowVoltage = approach(s.lowVoltage, converter ? 14.2 : 12.5, dt, 1);
    s.lowVoltageCharge = std::clamp(s.lowVoltageCharge + (converter ? 4 : -0.6) * hours, 0.0, 100.0);
}

/// Returns the force that acceleration, slope, tyres and air need, in N.
double DriveModel::forceAtWheels() const {
    const auto& s = m_state;
    const auto& c = s.controls;
    if (!s.moving() || m_strike > 0) {
        return 0;
    }
    const double slope = s.climbRate / s.speed;
    const double sign = s.speed < 0 ? -1 : 1;
    // Cold air is denser and cold tyres are stiffer.
    const double airDensity = 353 / (273 + std::clamp(c.outsideTemperature, -60.0, 60.0));
    const double rolling =
        Car::rollingResistance * std::clamp(1 + 0.006 * (20 - c.outsideTemperature), 0.9, 1.4);
    return Car::mass * (s.acceleration + gravity * slope + sign * gravity * rolling) +
           sign * 0.5 * airDensity * Car::airDrag * s.speed * s.speed;
}

/// Sets the power of the machines and their torque.
void DriveModel::drivePower() {
    auto& s = m_state;
    double mechanical = forceAtWheels() * s.speed / 1000;  // kW at the wheels
    const double most = s.availablePower();
    const double leastByCold = s.batteryTemperature < 0 ? 30 : 120;
    const double least = s.stateOfCharge > 97 || !s.highVoltageOn ? 0 : leastByCold;
    mechanical = std::clamp(mechanical, -least, most);  // friction brakes do the rest
    if (!s.controls.ignition) {
        mechanical = 0;
    }
    s.drivePower = mechanical > 0 ? mechanical / 0.91 : mechanical * 0.86;
    const double machineForce = std::abs(s.speed) > 0.3 ? mechanical * 1000 / s.speed : 0;
    const double wheelTorque = machineForce * Car::tyreCircumference / (2 * pi);
    s.front.torque = wheelTorque * Car::frontShare / Car::gearRatio;
    s.rear.torque = wheelTorque * (1 - Car::frontShare) / Car::gearRatio;
}

/// Charges if plugged in. Returns the power out of the battery, in kW.
double DriveModel::batteryPower(double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    double power = s.highVoltageOn ? s.drivePower + s.auxiliaryPower : 0;
    s.charging = false;
    if (c.plugged && c.chargePower > 0 && s.highVoltageOn && !s.moving()) {
        if (s.stateOfCharge < c.chargeLimit) {
            s.charging = true;
            s.chargeCompleted = false;
            double offered = c.chargePower;
            if (c.chargeDc) {  // a cold or nearly full battery takes less
                const double cold = std::clamp((s.batteryTemperature + 5) / 25, 0.15, 1.0);
                const double full = std::clamp((105 - s.stateOfCharge) / 55, 0.1, 1.0);
                offered = std::min(offered, 170 * cold * full);
            }
            power = s.auxiliaryPower - offered * 0.95;
            (c.chargeDc ? s.energyChargedDc : s.energyChargedAc) += offered * 0.95 * dt / 3600;
        } else {
            s.chargeCompleted = true;
        }
    } else if (!c.plugged) {
        s.chargeCompleted = false;
    }
    return power;
}

void DriveModel::battery(double power, double hours) {
    auto& s = m_state;
    s.stateOfCharge = std::clamp(s.stateOfCharge - power * hours / Car::usableEnergy * 100, 0.0, 100.0);
    if (power > 0) {
        s.energyDischarged += power * hours;
    } else if (!s.charging) {
        s.energyRecuperated -= power * hours;
    }
    s.climateEnergy += s.climatePower * hours;

    const double cell = 3.30 + 0.80 * s.stateOfCharge / 100 + 0.06 * std::tanh((s.stateOfCharge - 92) / 5);
    const double open = cell * Car::cells;
    s.packCurrent = power * 1000 / open;
    s.packVoltage = s.highVoltageOn ? open - s.packCurrent * Car::packResistance : 0;
    const double mean = (open - s.packCurrent * Car::packResistance) / Car::cells;
    const double spread = 0.004 + 0.00003 * std::abs(s.packCurrent);
    s.cellVoltageMaximum = mean + spread;
    s.cellVoltageMinimum = mean - spread;
}

/// Counts the distance and what it took.
void DriveModel::distance(double power, double dt) {
    auto& s = m_state;
    const double way = std::abs(s.speed) * dt / 1000;  // km
    s.odometer += way;
    s.tripDistance += way;
    s.sinceCharge = s.charging ? 0 : s.sinceCharge + way;
    if (way > 0) {
        const double now = std::clamp(power * (dt / 3600) / way * 100, -60.0, 150.0);
        s.averageConsumption += (now - s.averageConsumption) * (1 - std::exp(-way / 20));
        s.recentConsumption += (now - s.recentConsumption) * (1 - std::exp(-way / 2));
        s.averageConsumption = std::clamp(s.averageConsumption, 8.0, 60.0);
        s.controls.routeRemaining = std::max(0.0, s.controls.routeRemaining - way);
    }
}

void DriveModel::temperatures(double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    const double outside = c.outsideTemperature;
    // Cabin: the heat pump compensates the losses of the body.
    const bool climate = c.climate && s.highVoltageOn && (c.ignition || c.plugged);
    const double error = climate ? c.climateTarget - s.interiorTemperature : 0;
    const double lost = 0.1 * (s.interiorTemperature - outside);  // kW
    const double heat = climate ? std::clamp(1.2 * error + lost, -7.0, 7.0) : 0;
    const double yield = std::clamp(2.0 + 0.035 * outside, 1.3, 2.3);  // of the heat pump
    s.climatePower = std::abs(heat) / yield + (climate ? 0.12 : 0);
    double openings = 0;
    for (const bool open : c.doorOpen) {
        openings += open ? 0.4 : 0;
    }
    for (const double open : c.windowOpen) {
        openings += open / 100 * 0.15;
    }
    const double draught = openings * (s.interiorTemperature - outside);
    s.interiorTemperature += (heat - lost - draught) * dt / 60;  // 60 kJ/K

    const double loss = s.packCurrent * s.packCurrent * Car::packResistance / 1000;  // kW
    const double cooling =
        0.03 * (s.batteryTemperature - outside) + std::max(0.0, 0.25 * (s.batteryTemperature - 32));
    s.batteryTemperature += (loss - cooling) * dt / 420;
    for (auto [axle, share] : {std::pair{&s.front, Car::frontShare}, {&s.rear, 1 - Car::frontShare}}) {
        const double heatIn = 0.06 * std::abs(s.drivePower) * share;
        axle->windingTemperature += (heatIn - 0.045 * (axle->windingTemperature - outside - 5)) * dt / 20;
    }
}

void DriveModel::receiver(double dt) {
    auto& s = m_state;
    std::normal_distribution<double> noise(0, 1);
    // Gauss-Markov errors: correlated over a minute, with the spread of each solution.
    const auto wander = [&](double& error, double deviation, double time) {
        const double keep = std::exp(-dt / time);
        error = error * keep + deviation * std::sqrt(1 - keep * keep) * noise(m_random);
    };
    const bool lost = s.controls.tunnel;
    s.timeSinceFix = lost ? s.timeSinceFix + dt : 0;
    const double drift = 0.4 + 0.05 * s.timeSinceFix;
    wander(s.fusedErrorNorth, drift, 60);
    wander(s.fusedErrorEast, drift, 60);
    wander(s.satelliteErrorNorth, 2.2, 40);
    wander(s.satelliteErrorEast, 1.8, 40);
}

void DriveModel::clocks(double dt) {
    auto& s = m_state;
    const auto& c = s.controls;
    s.standstillTime = s.moving() ? 0 : s.standstillTime + dt;
    s.lockTime = c.locked != m_previous.locked ? 0 : s.lockTime + dt;
    s.gearTime = c.gear != m_previous.gear ? 0 : s.gearTime + dt;
    if (c.ignition != m_previous.ignition) {
        s.startTime = 0;
        if (c.ignition) {
            s.tripDistance = 0;
        }
    }
    s.startTime += dt;
    s.drivingTime = c.ignition && c.occupied[Driver] ? s.drivingTime + dt : 0;
    s.crashTime += dt;
    if (c.locked) {
        s.doorsUnlockedByCrash = false;
    }
}

}  // namespace vlmVehicle
