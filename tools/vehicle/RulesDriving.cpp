// Position, motion, time and distance.
#include <algorithm>
#include <cmath>

#include "tools/vehicle/RuleBook.h"

namespace vlmVehicle {

namespace {

constexpr double degree = 3.14159265358979323846 / 180;
constexpr double metresPerDegree = 111320;
constexpr double geoid = 48.2;  // m between ellipsoid and mean sea level

using M = const Moment&;

bool fused(M m) {
    return m.is("fused");
}

/// A value from satellites alone is not available in a tunnel.
Reading fix(M m, double value) {
    return m.state.controls.tunnel && !fused(m) ? notAvailable() : Reading(value);
}

double northError(M m) {
    return fused(m) ? m.state.fusedErrorNorth : m.state.satelliteErrorNorth;
}

double eastError(M m) {
    return fused(m) ? m.state.fusedErrorEast : m.state.satelliteErrorEast;
}

double horizontalAccuracy(M m) {
    return fused(m) ? 0.6 + 0.05 * m.state.timeSinceFix : 2.9;
}

int satellites(M m, int most) {
    return m.controls.tunnel ? 0 : most - static_cast<int>(m.count / 20 % 2);
}

double dilution(M m, double open) {
    return m.controls.tunnel ? 99.9 : open;
}

const Axle& axle(M m) {
    return m.is("rear") || m.is("rearAxle") ? m.state.rear : m.state.front;
}

const char* direction(const VehicleState& s) {
    return !s.moving() ? "standstill" : s.speed > 0 ? "forward" : "backward";
}

void addPositions(RuleBook& book) {
    book.add(
        "GNSS.positions",
        {{"messageCounter", [](M m) { return m.count; }},
         {"latency", [](M m) { return fused(m) ? 24.0 : 85.0; }},
         {"preciseLocalTimeSeconds", [](M m) { return m.wallMs / 1000; }},
         {"preciseLocalTimeNanoseconds", [](M m) { return m.wallMs % 1000 * 1000000; }},
         {"latitude", [](M m) { return fix(m, m.state.latitude + northError(m) / metresPerDegree); }},
         {"longitude",
          [](M m) {
              return fix(m, m.state.longitude +
                                eastError(m) / (metresPerDegree * std::cos(m.state.latitude * degree)));
          }},
         {"altitudeMeanSeaLevel", [](M m) { return fix(m, m.state.altitude + 1.4 * northError(m)); }},
         {"altitudeWGS84", [](M m) { return fix(m, m.state.altitude + geoid + 1.4 * northError(m)); }},
         {"yawAngle",
          [](M m) {
              return fix(m, m.state.speed < 0 && !fused(m) ? std::fmod(m.state.heading + 180, 360)
                                                           : m.state.heading);
          }},
         {"speed2D", [](M m) { return fix(m, std::abs(m.state.speed)); }},
         {"speed3D", [](M m) { return fix(m, std::hypot(m.state.speed, m.state.climbRate)); }},
         {"velocityNorthDirection",
          [](M m) { return fix(m, m.state.speed * std::cos(m.state.heading * degree)); }},
         {"velocityEastDirection",
          [](M m) { return fix(m, m.state.speed * std::sin(m.state.heading * degree)); }},
         {"velocityUpwardDirection", [](M m) { return fix(m, m.state.climbRate); }},
         {"accuracyHorizontal", [](M m) { return fix(m, horizontalAccuracy(m)); }},
         {"accuracyVertical", [](M m) { return fix(m, 1.6 * horizontalAccuracy(m)); }},
         {"accuracySpeed2D", [](M m) { return fix(m, fused(m) ? 0.05 : 0.15); }},
         {"accuracySpeed3D", [](M m) { return fix(m, fused(m) ? 0.08 : 0.2); }},
         {"accuracyYawAngle", [](M m) { return fix(m, fused(m)           ? 0.4
                                                      : m.state.moving() ? 2.0
                                                                         : 180.0); }},
         {"accuracyEllipseSemiMajorAxis", [](M m) { return fix(m, 2.4); }},
         {"accuracyEllipseSemiMinorAxis", [](M m) { return fix(m, 1.7); }},
         {"accuracyEllipseSemiMajorAxisHeading", [](M m) { return fix(m, 37.0); }}});
}

void addPositionsQuality(RuleBook& book) {
    book.add("GNSS.positionsQuality",
             {{"messageCounter", [](M m) { return m.count; }},
              {"fixStatus", [](M m) { return m.controls.tunnel ? "deadReckoning" : "fix3D"; }},
              {"correctionSource", [](M m) { return m.controls.tunnel ? "none" : "satelliteBased"; }},
              {"antennaState", [](M) { return "connected"; }},
              {"interference", [](M) { return "none"; }},
              {"dilutionGeometric", [](M m) { return dilution(m, 1.9); }},
              {"dilutionPosition", [](M m) { return dilution(m, 1.6); }},
              {"dilutionHorizontal", [](M m) { return dilution(m, 0.9); }},
              {"dilutionVertical", [](M m) { return dilution(m, 1.3); }},
              {"dilutionTime", [](M m) { return dilution(m, 1.0); }},
              {"satellitesInView", [](M m) { return satellites(m, 29); }},
              {"satellitesUsed",
               [](M m) { return satellites(m, 9) + satellites(m, 7) + satellites(m, 4) + satellites(m, 5); }},
              {"satellitesUsedGps", [](M m) { return satellites(m, 9); }},
              {"satellitesUsedGalileo", [](M m) { return satellites(m, 7); }},
              {"satellitesUsedGlonass", [](M m) { return satellites(m, 4); }},
              {"satellitesUsedBeidou", [](M m) { return satellites(m, 5); }},
              {"carrierToNoiseMean", [](M m) { return m.controls.tunnel ? notAvailable() : Reading(43.5); }},
              {"protectionLevelHorizontal", [](M m) { return 3.8 + 0.3 * m.state.timeSinceFix; }},
              {"protectionLevelVertical", [](M m) { return 6.1 + 0.4 * m.state.timeSinceFix; }},
              {"correctionAge", [](M m) { return m.controls.tunnel ? notAvailable() : Reading(6.0); }},
              {"timeSinceFix", [](M m) { return m.state.timeSinceFix; }},
              {"leapSeconds", [](M) { return 18; }}});
}

void addChassis(RuleBook& book) {
    book.keys("Chassis.axes", [](const VehicleState&) { return std::vector<std::string>{"front", "rear"}; });
    book.add("Chassis.axes",
             {{"wheelSpeedLeftPhysicalValue", [](M m) { return 3.6 * std::abs(axle(m).wheelSpeedLeft); }},
              {"wheelSpeedRightPhysicalValue", [](M m) { return 3.6 * std::abs(axle(m).wheelSpeedRight); }},
              {"drivingDirection", [](M m) { return direction(m.state); }}});
    book.add("Chassis.velocityInfo", {{"velocityPhysicalValue", [](M m) { return m.state.speedKmh(); }},
                                      {"isStandstill", [](M m) { return !m.state.moving(); }}});
    book.add("Chassis.espSystemInfo", {{"espDiagnosticIsActive", [](M) { return false; }}});
    book.keys("Chassis.notifications", [](const VehicleState& s) {
        std::vector<std::string> pending;
        if (s.stabilityIntervention) {
            pending.emplace_back("stabilityIntervention");
        }
        if (s.antilockIntervention) {
            pending.emplace_back("antilockIntervention");
        }
        if (s.controls.friction < 0.35 && s.acceleration > 0.8) {
            pending.emplace_back("tractionIntervention");
        }
        if (!s.moving() && s.brakePedal && std::abs(s.controls.slope) > 0.5) {
            pending.emplace_back("hillHoldActive");
        }
        return pending;
    });
}

void addVisualOdometry(RuleBook& book) {
    book.add("VisualOdometry.visualPositions",
             {{"vehicleSpeed", [](M m) {
                   const double scale = m.is("frontCamera") ? 1.006 : m.is("surroundCameras") ? 0.991 : 1.0;
                   const bool blind = m.state.dark() && m.is("surroundCameras");
                   return Reading(m.state.speed * scale, blind ? "extrapolated" : "valid");
               }}});
}

void addDisplaySpeed(RuleBook& book) {
    book.add(
        "DisplaySpeed.speeds",
        {{"displayedSpeed",
          [](M m) { return m.state.moving() ? std::abs(m.state.speedKmh()) * 1.02 + 1 : 0; }},
         {"speedUnit", [](M m) { return m.is("secondarySpeed") ? "milesPerHour" : "kilometresPerHour"; }},
         {"speedLead", [](M m) { return m.state.moving() ? std::abs(m.state.speedKmh()) * 0.02 + 1 : 0; }},
         {"isSpeedLimitExceeded",
          [](M m) { return m.controls.speedLimit > 0 && m.state.speedKmh() > m.controls.speedLimit + 3; }},
         {"isVisible", [](M m) { return m.controls.ignition && !m.is("secondarySpeed"); }}});
}

void addDistance(RuleBook& book) {
    book.add("Distance.distances", {{"distance",
                                     [](M m) {
                                         const auto& s = m.state;
                                         return m.is("odometer")     ? s.odometer
                                                : m.is("sinceStart") ? s.tripDistance
                                                : m.is("longTerm")   ? s.odometer - 11820
                                                : m.is("sinceEnergyRefill")
                                                    ? s.sinceCharge
                                                    : 30000 - std::fmod(s.odometer, 30000);
                                     }},
                                    {"hasOverflowed", [](M) { return false; }}});
}

void addAuthenticTime(RuleBook& book) {
    book.add("AuthenticTime.times",
             {{"time", [](M m) { return m.wallMs; }},
              {"timeUncertainty", [](M m) { return m.is("signedTime") ? 0.02 : 0.4; }},
              {"authenticationState",
               [](M m) { return m.is("signedTime") ? "authenticated" : "notAuthenticated"; }},
              {"timeSource", [](M m) { return m.is("signedTime") ? "backend" : "satellite"; }},
              {"timeSinceAuthentication",
               [](M m) { return m.is("signedTime") ? Reading(34 + m.state.time) : notAvailable(); }}});
}

void addDrivePerformance(RuleBook& book) {
    book.add("DrivePerformance.displayParameters",
             {{"currentPower", [](M m) { return m.state.drivePower; }},
              {"availablePower", [](M m) { return m.state.availablePower(); }},
              {"currentTorque", [](M m) { return m.state.front.torque + m.state.rear.torque; }},
              {"availableBoostTime", [](M m) { return m.controls.mode == DrivingMode::Sport ? 20.0 : 0.0; }},
              {"longitudinalAcceleration", [](M m) { return m.state.acceleration; }},
              {"lateralAcceleration", [](M m) { return m.state.lateralAcceleration; }},
              {"driveTemperature", [](M m) {
                   return std::max(m.state.front.windingTemperature, m.state.rear.windingTemperature);
               }}});
}

void addOperationalSensorData(RuleBook& book) {
    book.add("OperationalSensorData.sensorData",
             {{"acceleratorPedalPosition", [](M m) { return m.state.acceleratorPedal; }},
              {"isBrakePedalPressed", [](M m) { return m.state.brakePedal; }}});
    book.add("OperationalSensorData.notifications",
             {{"value", [](M m) {
                   return m.is("kickdown") && m.state.acceleratorPedal > 97 ? "detected" : "normal";
               }}});
}

void addElectricDrive(RuleBook& book) {
    book.add("ElectricDrive.electricDrives",
             {{"driveState",
               [](M m) {
                   if (!m.state.highVoltageOn) {
                       return m.state.crashTime < 5 ? "activeDischarge" : "inactive";
                   }
                   const double torque = axle(m).torque;
                   return !m.controls.ignition ? "inactive"
                          : torque > 1         ? "motoring"
                          : torque < -1        ? "recuperating"
                                               : "standby";
               }},
              {"rotationalSpeed", [](M m) { return axle(m).rotation; }},
              {"torque", [](M m) { return axle(m).torque; }},
              {"windingTemperature", [](M m) { return axle(m).windingTemperature; }}});
    book.add("ElectricDrive.notifications",
             {{"value", [](M m) {
                   const bool hot = m.state.rear.windingTemperature > 150;
                   return m.is("reducedPower") && m.state.availablePower() < 100 ? "bothAxles"
                          : m.is("machineHot") && hot                            ? "rearAxle"
                                                                                 : "none";
               }}});
}

void addPowertrain(RuleBook& book) {
    book.add("Powertrain.displayValues",
             {{"displayedPower",
               [](M m) {
                   const double available = m.state.availablePower();
                   return available > 0
                              ? m.state.drivePower / (m.state.drivePower < 0 ? 120 : available) * 100
                              : 0;
               }},
              {"displayedEngineSpeed", [](M) { return notAvailable(); }}});
    book.keys("Powertrain.notifications", [](const VehicleState& s) {
        return std::vector<std::string>{s.availablePower() < 100 ? "reducedPower" : "noNotification"};
    });
    book.add("Powertrain.status",
             {{"driveReadiness",
               [](M m) {
                   return !m.state.highVoltageOn  ? "blocked"
                          : !m.controls.ignition  ? "notReady"
                          : m.state.startTime < 1 ? "starting"
                                                  : "ready";
               }},
              {"selectorPosition",
               [](M m) {
                   constexpr const char* names[] = {"park", "reverse", "neutral", "drive"};
                   return names[static_cast<int>(m.controls.gear)];
               }},
              {"operatingMode", [](M m) {
                   return !m.state.moving()           ? "standstill"
                          : m.state.drivePower < -0.5 ? "recuperation"
                          : m.state.drivePower < 0.5  ? "coasting"
                                                      : "electric";
               }}});
}

void addAllWheelDrive(RuleBook& book) {
    book.add("AllWheelDrive.notifications",
             {{"value", [](M m) {
                   const bool downhill =
                       m.is("hillDescentActive") && m.controls.slope < -12 && m.state.moving();
                   const bool coasting = m.is("axleDisconnected") && m.controls.mode == DrivingMode::Eco &&
                                         m.state.moving() && m.state.acceleratorPedal < 15;
                   return downhill || coasting ? "active" : "inactive";
               }}});
}

void addDrivingProfileSelection(RuleBook& book) {
    book.add("DrivingProfileSelection.drivingModes",
             {{"value", [](M m) {
                   constexpr const char* names[] = {"eco", "comfort", "normal", "sport", "individual"};
                   return names[static_cast<int>(m.controls.mode)];
               }}});
    book.add("DrivingProfileSelection.notifications",
             {{"value", [](M m) {
                   constexpr const char* names[] = {"eco", "comfort", "normal", "sport", "individual"};
                   return m.is("profileChanged") ? names[static_cast<int>(m.controls.mode)] : "notAvailable";
               }}});
}

void addDamper(RuleBook& book) {
    book.add("Damper.damperMonitorInfo",
             {{"dampingRatioFrontLeft", [](M) { return 0.31; }},
              {"dampingRatioFrontRight", [](M) { return 0.30; }},
              {"dampingRatioRearLeft", [](M) { return 0.34; }},
              {"dampingRatioRearRight", [](M) { return 0.33; }},
              {"observedDistance", [](M m) { return std::fmod(m.state.odometer, 500); }}});
}

void addVehicleBasicData(RuleBook& book) {
    book.add("VehicleBasicData.installations", {{"hasAirSuspension", [](M) { return true; }},
                                                {"hasAllWheelDrive", [](M) { return true; }},
                                                {"hasHeatPump", [](M) { return true; }},
                                                {"hasSunroof", [](M) { return true; }},
                                                {"hasTrailerHitch", [](M) { return false; }}});
    book.add("VehicleBasicData.parameters",
             {{"tyreCircumference", [](M) { return Car::tyreCircumference * 1000; }}});
    book.add("VehicleBasicData.variants", {{"bodyVariant", [](M) { return "estate"; }},
                                           {"propulsionVariant", [](M) { return "batteryElectric"; }},
                                           {"steeringWheelSide", [](M) { return "left"; }},
                                           {"marketRegion", [](M) { return "europe"; }}});
}

void addObdInformation(RuleBook& book) {
    book.add("ObdInformation.settings",
             {{"obdStandard", [](M) { return "europe"; }},
              {"communicationProtocol", [](M) { return "can11Bit"; }},
              {"numberOfControlUnits", [](M) { return 4; }},
              {"calibrationIdentification", [](M) { return "BENCH-0021-A"; }},
              {"calibrationVerificationNumber", [](M) { return std::uint64_t{0x5A1C77E3}; }},
              {"drivingCyclesUntilLampOn", [](M) { return 3; }},
              {"drivingCyclesUntilLampOff", [](M) { return 4; }},
              {"isConsumptionMonitoringActive", [](M) { return true; }},
              {"isRemoteReadoutPermitted", [](M) { return false; }}});
    book.add("ObdInformation.notifications", {{"malfunctionIndicatorLamp", [](M m) {
                                                   return m.state.crashSeverity >= 3 ? "on"
                                                          : m.controls.ignition && m.state.startTime < 4
                                                              ? "lampTest"
                                                              : "off";
                                               }}});
}

}  // namespace

void addDrivingRules(RuleBook& book) {
    for (const auto add :
         {addPositions, addPositionsQuality, addChassis, addVisualOdometry, addDisplaySpeed, addDistance,
          addAuthenticTime, addDrivePerformance, addOperationalSensorData, addElectricDrive, addPowertrain,
          addAllWheelDrive, addDrivingProfileSelection, addDamper, addVehicleBasicData, addObdInformation}) {
        add(book);
    }
}

}  // namespace vlmVehicle
