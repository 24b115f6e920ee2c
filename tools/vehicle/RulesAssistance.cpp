// Driver assistance, and accidents.
#include <algorithm>
#include <cmath>

#include "tools/vehicle/RuleBook.h"

namespace vlmVehicle {

namespace {

using M = const Moment&;
using Names = std::vector<std::string>;

bool seesTarget(M m) {
    return m.state.gap > 0;
}

Reading ofTarget(M m, double value) {
    return seesTarget(m) ? Reading(value) : notAvailable();
}

Reading whileControlling(M m, double value) {
    return m.controls.cruiseControl ? Reading(value) : notAvailable();
}

const char* cruiseState(const VehicleState& s) {
    const auto& c = s.controls;
    return !c.ignition                            ? "switchedOff"
           : !c.cruiseControl                     ? "standby"
           : !s.moving() && s.gap > 0             ? "standstillHold"
           : s.acceleratorPedal > 90              ? "overridden"
           : s.gap > 0 && s.gap < 3 * s.speed + 5 ? "distanceControl"
                                                  : "speedControl";
}

Reading predictedSpeed(M m) {
    const double limit = m.controls.speedLimit;
    const double curve = std::abs(m.controls.curvature);
    if (curve > 5) {  // lateral comfort of 2.5 m/s²
        return std::min(250.0, 3.6 * std::sqrt(2.5 * 1000 / curve));
    }
    return limit > 0 ? Reading(limit) : notAvailable();
}

bool hit(M m, Impact impact) {
    return m.state.crashCounter > 0 && m.state.impact == impact;
}

bool deployed(M m) {
    return m.state.crashSeverity >= 3;
}

Reading velocityChange(M m, bool longitudinal) {
    if (m.state.crashCounter == 0) {
        return notAvailable();
    }
    const Impact impact = m.state.impact;
    const bool along = impact == Impact::Front || impact == Impact::Rear;
    const double sign = impact == Impact::Right ? -1 : 1;
    return along == longitudinal ? sign * m.state.deltaVelocity : 0.0;
}

/// The elapsed part of the two seconds before an impact, in %.
double imminence(const VehicleState& s) {
    const double time = timeToCollision(s);
    return time >= 0 && time < 2 ? (2 - time) / 2 * 100 : 0;
}

const char* callState(const VehicleState& s) {
    return s.crashSeverity < 3 ? "idle"
           : s.crashTime < 3   ? "requested"
           : s.crashTime < 15  ? "inProgress"
           : s.crashTime < 240 ? "established"
                               : "callbackReady";
}

void addACC(RuleBook& book) {
    book.add("ACC.additionalRadarInformation",
             {{"blockageDegreePhysicalValue", [](M m) { return std::min(100.0, 3 + 1.5 * m.controls.rain); }},
              {"unvailability", [](M m) { return m.controls.rain > 40 ? "weather" : "available"; }}});
    book.add("ACC.info",
             {{"accState", [](M m) { return cruiseState(m.state); }},
              {"standstillState",
               [](M m) {
                   return m.state.moving()             ? "notAtStandstill"
                          : m.controls.parkingBrake    ? "handedToParkingBrake"
                          : m.state.standstillTime < 3 ? "automaticStart"
                                                       : "driverConfirmation";
               }},
              {"drivingProgram",
               [](M m) {
                   constexpr const char* programs[] = {"eco", "comfort", "normal", "dynamic", "normal"};
                   return programs[static_cast<int>(m.controls.mode)];
               }},
              {"setSpeedPhysicalValue",
               [](M m) { return whileControlling(m, std::max(0.0, m.controls.targetSpeed)); }},
              {"setSpeedUnit", [](M) { return "kilometresPerHour"; }},
              {"setTimeGapPhysicalValue", [](M m) { return whileControlling(m, 1.8); }},
              {"timeGapStage", [](M) { return "mediumGap"; }},
              {"requestedAccelerationPhysicalValue",
               [](M m) { return whileControlling(m, m.state.acceleration); }},
              {"predictiveSpeedPhysicalValue", [](M m) { return predictedSpeed(m); }},
              {"predictiveControlReason",
               [](M m) {
                   return std::abs(m.controls.curvature) > 5 ? "curve"
                          : m.controls.speedLimit > 0        ? "speedLimit"
                                                             : "none";
               }},
              {"isTargetObjectDetected", [](M m) { return seesTarget(m); }},
              {"isDriverOverriding", [](M m) { return std::string(cruiseState(m.state)) == "overridden"; }},
              {"isTakeOverRequested", [](M m) {
                   return m.controls.cruiseControl && seesTarget(m) && m.state.gap < 0.4 * m.state.speed;
               }}});
    book.keys("ACC.targetDistances",
              [](const VehicleState& s) { return Names{s.gap > 0 ? "controlTarget" : "noTarget"}; });
    book.add(
        "ACC.targetDistances",
        {{"distancePhysicalValue", [](M m) { return ofTarget(m, m.state.gap); }},
         {"lateralOffsetPhysicalValue", [](M m) { return ofTarget(m, 0.2 * std::sin(m.state.time / 3)); }},
         {"relativeVelocityPhysicalValue", [](M m) { return ofTarget(m, m.state.gapRate); }},
         {"relativeAccelerationPhysicalValue", [](M m) { return ofTarget(m, -m.state.acceleration); }},
         {"timeGapPhysicalValue",
          [](M m) { return m.state.speed > 1 ? ofTarget(m, m.state.gap / m.state.speed) : notAvailable(); }},
         {"objectClass", [](M m) { return seesTarget(m) ? "car" : "unclassified"; }},
         {"motionState", [](M m) {
              return !seesTarget(m) ? "unknown" : m.controls.leadSpeed > 1 ? "moving" : "stopped";
          }}});
    book.add("ACC.velocities",
             {{"velocityPhysicalValue", [](M m) {
                   return m.is("setVelocity") ? whileControlling(m, std::max(0.0, m.controls.targetSpeed))
                          : m.is("controlVelocity")
                              ? whileControlling(m,
                                                 std::max(0.0, m.state.speedKmh() + 5 * m.state.acceleration))
                              : ofTarget(m, std::max(0.0, m.state.speedKmh() + 3.6 * m.state.gapRate));
               }}});
}

void addAWV(RuleBook& book) {
    book.add("AWV.info", {{"interventionState",
                           [](M m) {
                               const double time = timeToCollision(m.state);
                               return m.controls.emergencyBraking
                                          ? (m.state.moving() ? "fullBraking" : "standstillHold")
                                      : time >= 0 && time < 2.5 ? "brakePrefill"
                                                                : "noIntervention";
                           }},
                          {"timeToCollision", [](M m) {
                               const double time = timeToCollision(m.state);
                               return time >= 0 && time <= 20 ? Reading(time) : notAvailable();
                           }}});
    book.keys("AWV.notifications", [](const VehicleState& s) {
        const double time = timeToCollision(s);
        return Names{s.controls.emergencyBraking && s.moving()            ? "emergencyBraking"
                     : time >= 0 && time < 2                              ? "acuteWarning"
                     : time >= 0 && time < 4                              ? "preWarning"
                     : s.gap > 0 && s.speed > 15 && s.gap < 0.9 * s.speed ? "distanceWarning"
                                                                          : "noNotification"};
    });
}

void addPreCrash(RuleBook& book) {
    book.add("PreCrash.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   const bool now = s.crashCounter > 0 && s.crashTime < 1;
                   return m.is("frontImpact")   ? (now && s.impact == Impact::Front ? 100 : imminence(s))
                          : m.is("rearImpact")  ? (now && s.impact == Impact::Rear ? 100 : 0)
                          : m.is("leftImpact")  ? (now && s.impact == Impact::Left ? 100 : 0)
                          : m.is("rightImpact") ? (now && s.impact == Impact::Right ? 100 : 0)
                          : m.is("rollover")    ? (now && s.impact == Impact::Rollover ? 100 : 0)
                          : m.is("skidding")    ? (s.stabilityIntervention ? 60 : 0)
                          : s.controls.emergencyBraking && s.moving() ? 100.0
                                                                      : 0.0;
               }}});
}

void addAirbag(RuleBook& book) {
    book.add("Airbag.crashInfo",
             {{"crashCounter", [](M m) { return m.state.crashCounter; }},
              {"crashSeverity",
               [](M m) {
                   constexpr const char* severities[] = {"none", "belowDeployment", "beltTensioner", "airbag",
                                                         "airbagSecondStage"};
                   return severities[std::clamp(m.state.crashSeverity, 0, 4)];
               }},
              {"isFrontCrash", [](M m) { return hit(m, Impact::Front); }},
              {"isRearCrash", [](M m) { return hit(m, Impact::Rear); }},
              {"isLeftSideCrash", [](M m) { return hit(m, Impact::Left); }},
              {"isRightSideCrash", [](M m) { return hit(m, Impact::Right); }},
              {"isRollover", [](M m) { return hit(m, Impact::Rollover); }},
              {"deltaVelocityLongitudinal", [](M m) { return velocityChange(m, true); }},
              {"deltaVelocityLateral", [](M m) { return velocityChange(m, false); }},
              {"areFrontAirbagsDeployed", [](M m) { return deployed(m) && hit(m, Impact::Front); }},
              {"areSideAirbagsDeployed",
               [](M m) {
                   return deployed(m) &&
                          (hit(m, Impact::Left) || hit(m, Impact::Right) || hit(m, Impact::Rollover));
               }},
              {"isHighVoltageShutdownRequested", [](M m) { return m.state.crashSeverity >= 2; }}});
    book.keys("Airbag.notifications", [](const VehicleState& s) {
        Names pending{s.controls.occupied[FrontPassenger] ? "passengerAirbagOn" : "passengerAirbagOff"};
        if (s.crashSeverity >= 3) {
            pending.emplace_back("systemFault");
        }
        if (s.crashSeverity >= 2) {
            pending.emplace_back("pretensionerDeployed");
        }
        if (s.crashCounter > 0) {
            pending.emplace_back("crashRecorded");
        }
        return pending;
    });
}

void addEmergencyCall(RuleBook& book) {
    book.add("EmergencyCall.notifications", {{"value", [](M m) {
                                                  const auto& s = m.state;
                                                  return m.is("automaticCall") ? callState(s)
                                                         : m.is("minimumSetOfData")
                                                             ? (s.crashSeverity < 3 ? "idle"
                                                                : s.crashTime < 8   ? "inProgress"
                                                                                    : "established")
                                                         : m.is("mobileNetwork")
                                                             ? (m.controls.tunnel ? "limited" : "established")
                                                             : "idle";
                                              }}});
}

void addEmergencyAssist(RuleBook& book) {
    book.add("EmergencyAssist.notifications",
             {{"value", [](M m) {
                   return m.is("handsOff") && !m.controls.handsOnWheel && m.state.moving() ? "visualWarning"
                                                                                           : "noEscalation";
               }}});
}

void addLaneAssist(RuleBook& book) {
    book.keys("LaneAssist.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{!c.ignition                 ? "switchedOff"
                     : s.speedKmh() < 60         ? "speedTooLow"
                     : !c.handsOnWheel           ? "takeOverSteering"
                     : std::abs(c.curvature) > 8 ? "curveTooTight"
                                                 : "noNotification"};
    });
}

void addTirednessDetection(RuleBook& book) {
    book.add("TirednessDetection.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   const bool assessed = s.controls.ignition && (s.speedKmh() > 50 || m.is("drivingTime"));
                   return !assessed                  ? "notAssessed"
                          : s.drivingTime > 4 * 3600 ? "urgentBreak"
                          : s.drivingTime > 2 * 3600 ? "breakRecommended"
                          : s.drivingTime > 3600     ? "slightlyTired"
                                                     : "attentive";
               }}});
}

void addTrafficSignAssist(RuleBook& book) {
    book.add("TrafficSignAssist.trafficSignNotifications",
             {{"speedLimit",
               [](M m) {
                   const double limit = m.controls.speedLimit;
                   return limit > 0 ? Reading(limit) : Reading(160.0, "unlimited");
               }},
              {"supplementarySign", [](M) { return "none"; }},
              {"speedWarning", [](M m) {
                   const double limit = m.controls.speedLimit;
                   const double over = m.state.speedKmh() - limit;
                   return limit <= 0 || over < 3 ? "noWarning" : over < 10 ? "exceeded" : "exceededAcoustic";
               }}});
}

void addSteeringAssist(RuleBook& book) {
    book.add("SteeringAssist.notifications", {{"value", [](M) { return "normal"; }}});
}

void addDamper(RuleBook& book) {
    book.add("Damper.notifications", {{"value", [](M) { return "notPending"; }}});
}

void addDriverDisplay(RuleBook& book) {
    book.add("DriverDisplay.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   const auto& c = m.controls;
                   const bool shown = m.is("speedWarning")
                                          ? c.speedLimit > 0 && s.speedKmh() > c.speedLimit + 5
                                      : m.is("iceWarning")    ? c.outsideTemperature < 4 && s.startTime < 60
                                      : m.is("chargeReserve") ? s.reserve()
                                                              : false;
                   return !c.ignition                                      ? "notPending"
                          : shown                                          ? "shown"
                          : m.is("iceWarning") && c.outsideTemperature < 4 ? "symbolOnly"
                          : m.is("backlightDimmed") && s.dark()            ? "symbolOnly"
                                                                           : "notPending";
               }}});
}

void addParkDistanceControl(RuleBook& book) {
    book.keys("ParkDistanceControl.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        const bool reverse = c.gear == Gear::Reverse;
        const bool slow = std::abs(s.speedKmh()) < 15 && c.ignition;
        return Names{slow && c.obstacleDistance > 0 && c.obstacleDistance < 0.35
                         ? (reverse ? "rearContinuousTone" : "frontContinuousTone")
                     : slow && (reverse || c.obstacleDistance > 0) ? "active"
                                                                   : "noNotification"};
    });
}

void addParkAssist(RuleBook& book) {
    book.add("ParkAssist.notifications",
             {{"value", [](M m) {
                   return m.is("steeringActive") && m.controls.gear == Gear::Reverse && m.state.moving()
                              ? "perpendicularReverseRight"
                              : "none";
               }}});
}

void addTrailerAssist(RuleBook& book) {
    book.add("TrailerAssist.notifications", {{"value", [](M) { return 0; }}});
}

void addParkingBrake(RuleBook& book) {
    book.keys("ParkingBrake.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{c.parkingBrake && c.ignition && c.targetSpeed > 0 && !c.belted[Driver]
                         ? "fastenBelt"
                         : "noNotification"};
    });
    book.add("ParkingBrake.status",
             {{"parkingBrakeStatus", [](M m) { return m.controls.parkingBrake ? "applied" : "released"; }}});
}

}  // namespace

void addAssistanceRules(RuleBook& book) {
    for (const auto add :
         {addACC, addAWV, addPreCrash, addAirbag, addEmergencyCall, addEmergencyAssist, addLaneAssist,
          addTirednessDetection, addTrafficSignAssist, addSteeringAssist, addDamper, addDriverDisplay,
          addParkDistanceControl, addParkAssist, addTrailerAssist, addParkingBrake}) {
        add(book);
    }
}

}  // namespace vlmVehicle
