// Doors, locks, belts, lights, climate and surroundings.
#include <algorithm>
#include <cmath>

#include "tools/vehicle/RuleBook.h"

namespace vlmVehicle {

namespace {

using M = const Moment&;
using Names = std::vector<std::string>;

/// The door of a key value (1 to 4).
std::size_t door(M m) {
    return static_cast<std::size_t>(std::clamp(m.key, 1, static_cast<int>(DoorCount)) - 1);
}

std::size_t seat(M m) {
    return static_cast<std::size_t>(std::clamp(m.key, 1, static_cast<int>(SeatCount)) - 1);
}

bool anyDoorOpen(const Controls& c) {
    return c.tailgateOpen || c.hoodOpen ||
           std::any_of(c.doorOpen.begin(), c.doorOpen.end(), [](bool open) { return open; });
}

const char* latch(bool open) {
    return open ? "open" : "closed";
}

bool lightsOn(const VehicleState& s) {
    return s.controls.ignition && s.dark();
}

/// The requester of a blinking turn lamp; "nobody" when it is off.
const char* requester(M m) {
    const auto& s = m.state;
    const auto& c = m.controls;
    const bool crash = s.crashSeverity >= 2;
    if (m.is("turnLeft") || m.is("turnRight")) {
        return c.indicator == (m.is("turnLeft") ? Indicator::Left : Indicator::Right) ? "turnStalk"
                                                                                      : "nobody";
    }
    if (m.is("hazardWarning")) {
        return !c.hazard ? "nobody" : crash ? "airbag" : "hazardSwitch";
    }
    if (m.is("crashFlashing")) {
        return crash && s.crashTime < 60 ? "airbag" : "nobody";
    }
    if (m.is("emergencyBraking")) {
        return c.emergencyBraking && s.speedKmh() > 5 ? "brakeSystem" : "nobody";
    }
    if (m.is("lockAcknowledgement") || m.is("unlockAcknowledgement")) {
        return s.lockTime < 2 && c.locked == m.is("lockAcknowledgement") && !c.ignition ? "centralLocking"
                                                                                        : "nobody";
    }
    return m.is("alarm") && c.alarm && c.locked ? "antiTheftSystem" : "nobody";
}

const char* occupancy(M m) {
    return m.controls.occupied[seat(m)] ? "occupied" : "vacant";
}

const char* climateState(const VehicleState& s) {
    const auto& c = s.controls;
    if (!c.climate || !s.highVoltageOn || !(c.ignition || c.plugged)) {
        return "switchedOff";
    }
    const double error = c.climateTarget - s.interiorTemperature;
    return error > 0.5 ? "heating" : error < -0.5 ? "cooling" : "ventilating";
}

void addCarBody(RuleBook& book) {
    book.add("CarBody.doors", {{"doorState", [](M m) { return latch(m.controls.doorOpen[door(m)]); }},
                               {"windowPosition", [](M m) { return m.controls.windowOpen[door(m)]; }},
                               {"isChildLockActive", [](M m) {
                                    const auto& seats = m.controls.occupied;
                                    return door(m) >= RearLeft && (seats[BackLeft] || seats[BackRight]);
                                }}});
    book.add("CarBody.hatchesAndTraps",
             {{"hoodState", [](M m) { return latch(m.controls.hoodOpen); }},
              {"tailgateState", [](M m) { return latch(m.controls.tailgateOpen); }},
              {"chargingFlapState", [](M m) { return latch(m.controls.plugged); }},
              {"fuelFlapState", [](M) { return "notAvailable"; }},
              {"sunroofState", [](M m) { return m.controls.sunroofOpen > 0 ? "slidOpen" : "closed"; }},
              {"sunroofPosition", [](M m) { return m.controls.sunroofOpen; }}});
}

void addCentralLocking(RuleBook& book) {
    book.add("CentralLocking.info", {{"isKeyBatterieDefect", [](M) { return false; }}});
    book.keys("CentralLocking.lockStates", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{s.doorsUnlockedByCrash ? "crashUnlocked"
                     : !c.locked            ? "unlocked"
                     : c.occupied[Driver]   ? "lockedFromInside"
                                            : "locked"};
    });
    book.keys("CentralLocking.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{c.locked && anyDoorOpen(c)                       ? "doorOpenWhileLocking"
                     : c.ignition && !c.keyInside                     ? "keyNotInVehicle"
                     : c.locked && c.keyInside && !c.occupied[Driver] ? "keyLeftInVehicle"
                                                                      : "noNotification"};
    });
}

void addDigitalKey(RuleBook& book) {
    book.keys("DigitalKey.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{c.locked && c.keyInside && !c.occupied[Driver] ? "deviceForgotten" : "noNotification"};
    });
}

void addAntiTheftSystem(RuleBook& book) {
    book.add("AntiTheftSystem.systemStatus",
             {{"isAntiTheftSystemArmed",
               [](M m) { return m.controls.locked && !m.controls.ignition && m.state.lockTime > 2; }},
              {"isAntiTheftSystemAlarming",
               [](M m) { return m.controls.alarm && m.controls.locked && !m.controls.ignition; }}});
}

void addImmobilizer(RuleBook& book) {
    book.add("Immobilizer.info", {{"isLocked", [](M m) { return !m.controls.ignition; }}});
}

void addClampControl(RuleBook& book) {
    book.keys("ClampControl.clamps", [](const VehicleState& s) {
        Names live{"clamp30"};
        if (s.controls.keyInside) {
            live.emplace_back("clampS");
        }
        if (s.controls.ignition) {
            live.insert(live.end(), {"clamp15", "clampX", "clamp75"});
        }
        if (lightsOn(s)) {
            live.emplace_back("clamp58");
        }
        return live;
    });
    book.keys("ClampControl.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{c.ignition && !c.occupied[Driver] ? "ignitionStillOn" : "noNotification"};
    });
    book.add("ClampControl.specialStates", {{"isProductionModeActive", [](M) { return false; }},
                                            {"isTransportModeActive", [](M) { return false; }},
                                            {"isShowroomModeActive", [](M) { return false; }}});
}

void addOccupantPresence(RuleBook& book) {
    book.add("OccupantPresence.driverPresenceStatus",
             {{"comfortReadyStatus",
               [](M m) {
                   const auto& c = m.controls;
                   return c.ignition                           ? "ready"
                          : c.occupied[Driver]                 ? "leaving"
                          : !c.locked && m.state.lockTime < 30 ? "approaching"
                                                               : "notReady";
               }},
              {"driverState", [](M m) {
                   const auto& c = m.controls;
                   if (!c.occupied[Driver]) {
                       return c.locked ? "absent" : "nearby";
                   }
                   return m.state.moving() ? "driving" : c.belted[Driver] ? "seatedBelted" : "seated";
               }}});
}

void addSafetyBeltState(RuleBook& book) {
    book.keys("SafetyBeltState.belts", [](const VehicleState& s) {
        constexpr const char* belts[] = {"driver", "frontPassenger", "rearLeft", "rearMiddle", "rearRight"};
        Names fastened;
        for (std::size_t i = 0; i < SeatCount; ++i) {
            if (s.controls.belted[i]) {
                fastened.emplace_back(belts[i]);
            }
        }
        return fastened.empty() ? Names{"none"} : fastened;
    });
    book.keys("SafetyBeltState.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        Names pending;
        bool rear = false;
        for (std::size_t i = 0; i < SeatCount; ++i) {
            const bool loose = c.ignition && c.occupied[i] && !c.belted[i];
            if (loose && i == Driver) {
                pending.emplace_back("driverNotBelted");
            } else if (loose && i == FrontPassenger) {
                pending.emplace_back("frontPassengerNotBelted");
            } else {
                rear = rear || loose;
            }
        }
        if (rear) {
            pending.emplace_back("rearNotBelted");
        }
        if (!pending.empty() && s.speedKmh() > 10) {
            pending.emplace_back("unfastenedWhileDriving");
        }
        if (s.crashSeverity >= 2) {
            pending.emplace_back("tensionerFault");  // has fired and must be replaced
        }
        return pending.empty() ? Names{"noNotification"} : pending;
    });
    book.add("SafetyBeltState.seatOccupancy", {{"occupancy", [](M m) { return occupancy(m); }}});
}

void addBlinkingLight(RuleBook& book) {
    book.add("BlinkingLight.blinkingModes",
             {{"isActive", [](M m) { return std::string(requester(m)) != "nobody"; }},
              {"requester", [](M m) { return requester(m); }}});
}

void addLamps(RuleBook& book) {
    book.add(
        "ExteriorLight.info",
        {{"darknessIndication", [](M m) {
              const double light = m.controls.brightness;
              return m.controls.tunnel ? "tunnel" : light < 200 ? "dark" : light < 1000 ? "dusk" : "bright";
          }}});
    book.keys("ExteriorLight.lamps", [](const VehicleState& s) {
        const auto& c = s.controls;
        Names lit;
        if (lightsOn(s)) {
            lit = {"lowBeamLeft", "lowBeamRight", "frontPositionLeft", "frontPositionRight",
                   "tailLeft",    "tailRight",    "licencePlate"};
            if (c.highBeam) {
                lit.insert(lit.end(), {"highBeamLeft", "highBeamRight"});
            }
        } else if (c.ignition) {
            lit = {"daytimeLeft", "daytimeRight"};
        }
        if (s.brakeLight()) {
            lit.insert(lit.end(), {"brakeLeft", "brakeRight", "brakeCentre"});
        }
        if (c.ignition && c.rearFog) {
            lit.emplace_back("rearFog");
        }
        if (c.ignition && c.gear == Gear::Reverse) {
            lit.emplace_back("reversing");
        }
        return lit.empty() ? Names{"none"} : lit;
    });
}

void addLightFunctions(RuleBook& book) {
    book.keys("ExteriorLight.lightFunctions", [](const VehicleState& s) {
        const auto& c = s.controls;
        Names active;
        if (lightsOn(s)) {
            active = {"positionLight", "lowBeam"};
            if (c.highBeam) {
                active.emplace_back("highBeam");
            }
            if (std::abs(s.yawRate) > 6) {
                active.emplace_back("corneringLight");
            }
        } else if (c.ignition) {
            active.emplace_back("daytimeRunningLight");
        } else if (s.dark() && s.startTime < 30) {
            active.emplace_back(c.locked ? "comingHome" : "leavingHome");
        }
        if (s.brakeLight()) {
            active.emplace_back("brakeLight");
        }
        if (c.ignition && c.rearFog) {
            active.emplace_back("rearFogLight");
        }
        if (c.ignition && c.gear == Gear::Reverse) {
            active.emplace_back("reversingLight");
        }
        return active.empty() ? Names{"none"} : active;
    });
}

void addEnvironmentalSensorData(RuleBook& book) {
    book.add("EnvironmentalSensorData.sensorData",
             {{"ambientBrightness", [](M m) { return m.controls.tunnel ? 60 : m.controls.brightness; }},
              {"rainIntensity", [](M m) { return m.controls.tunnel ? 0 : m.controls.rain; }}});
}

void addTemperature(RuleBook& book) {
    book.add(
        "Temperature.temperatures",
        {{"temperaturePhysicalValue",
          [](M m) { return m.is("outside") ? m.controls.outsideTemperature : m.state.interiorTemperature; }},
         {"temperatureRawPhysicalValue",
          [](M m) {  // behind the bumper: too warm at standstill
              return m.is("outside") ? m.controls.outsideTemperature + (m.state.moving() ? 0.4 : 2.2)
                                     : m.state.interiorTemperature + 0.7;
          }},
         {"dewPointPhysicalValue", [](M m) { return m.state.dewPoint() + (m.is("outside") ? 0 : 3); }},
         {"displayUnit", [](M) { return "celsius"; }}});
    book.add("Temperature.temperatureWarnings",
             {{"isToBeNotified", [](M m) {
                   const double outside = m.controls.outsideTemperature;
                   const double inside = m.state.interiorTemperature;
                   return m.is("frost") ? outside < 4
                          : m.is("blackIce")
                              ? outside < 1 && (m.controls.rain > 0 || m.controls.friction < 0.4)
                          : m.is("interiorHeat") ? inside > 35
                                                 : inside < 5;
               }}});
}

void addClimateControl(RuleBook& book) {
    book.add("ClimateControl.status",
             {{"climateState", [](M m) { return climateState(m.state); }},
              {"insideTemperature", [](M m) { return m.state.interiorTemperature; }}});
    book.add("ClimateControl.notifications",
             {{"value", [](M m) {
                   const auto& c = m.controls;
                   const bool parked = !c.ignition && c.climate && c.plugged;
                   const bool active = m.is("parkedClimatisation") ? parked
                                       : m.is("maximumDefrost")
                                           ? c.climate && c.ignition && m.state.interiorTemperature < 2
                                       : m.is("batteryPriority") ? m.state.reserve()
                                                                 : false;
                   return active ? "active" : "inactive";
               }}});
}

void addBasicNotification(RuleBook& book) {
    book.add("BasicNotification.airbagNotifications",
             {{"value", [](M m) {
                   const bool passenger = m.controls.occupied[FrontPassenger];
                   const bool test = m.controls.ignition && m.state.startTime < 4;
                   const bool lit = m.is("restraintSystemFault")         ? m.state.crashSeverity >= 3
                                    : m.is("passengerAirbagSwitchedOff") ? !passenger
                                    : m.is("passengerAirbagSwitchedOn")  ? passenger
                                    : m.is("deployedInCrash")            ? m.state.crashSeverity >= 3
                                                                         : false;
                   return lit ? "lit" : test ? "selfTest" : "dark";
               }}});
    book.add("BasicNotification.childPresenceDetectionNotifications",
             {{"value", [](M m) {
                   const auto& c = m.controls;
                   const bool child = (m.is("rearLeftSeat") && c.occupied[BackLeft]) ||
                                      (m.is("rearMiddleSeat") && c.occupied[BackMiddle]) ||
                                      (m.is("rearRightSeat") && c.occupied[BackRight]);
                   return !child || c.occupied[Driver] || c.ignition ? "nothingDetected"
                          : !c.locked                                ? "reminder"
                          : m.state.lockTime < 60                    ? "externalWarning"
                                                                     : "phoneMessage";
               }}});
    book.add(
        "BasicNotification.drivePerformanceNotifications",
        {{"value", [](M m) {
              const auto& s = m.state;
              return m.is("boost")
                         ? (m.controls.mode == DrivingMode::Sport && s.acceleratorPedal > 80 ? 100.0 : 0.0)
                     : m.is("batteryCold") ? std::clamp((5 - s.batteryTemperature) * 4, 0.0, 100.0)
                     : m.is("batteryHot")  ? std::clamp((s.batteryTemperature - 42) * 8, 0.0, 100.0)
                     : m.is("chargeLow")   ? std::clamp((12 - s.stateOfCharge) * 8, 0.0, 100.0)
                     : m.is("driveHot")    ? std::clamp((s.rear.windingTemperature - 130) * 2, 0.0, 100.0)
                     : m.is("limpHome")    ? (s.stateOfCharge < 1 ? 100.0 : 0.0)
                                           : 0.0;
          }}});
    book.add("BasicNotification.eBrakeServoNotifications",
             {{"value", [](M m) {
                   const bool noRecuperation = m.state.stateOfCharge > 97 || m.state.batteryTemperature < 0;
                   return m.is("recuperationUnavailable") && noRecuperation ? "information" : "notPending";
               }}});
    book.keys("BasicNotification.realTimeMonitoringNotifications", [](const VehicleState& s) {
        return Names{s.crashSeverity >= 3  ? "alarmLevelThree"
                     : s.controls.ignition ? "transmissionActive"
                                           : "noNotification"};
    });
    book.add("BasicNotification.seatMemoryNotifications",
             {{"value", [](M m) {
                   return m.is("driverSeatRecalled") && m.controls.ignition && m.state.startTime < 20 ? 1 : 0;
               }}});
    book.add("BasicNotification.wiperNotifications",
             {{"value", [](M m) {
                   return m.is("hoodOpen") && m.controls.hoodOpen && m.controls.wiper ? "pending" : "gone";
               }}});
    book.add("BasicNotification.slidingDoorNotifications", {{"value", [](M) { return "closed"; }}});
    book.add("BasicNotification.trailerNotifications", {{"value", [](M) { return "gone"; }}});
}

void addTrailerHitchAssist(RuleBook& book) {
    book.add("TrailerHitchAssist.notifications", {{"value", [](M) { return "retracted"; }}});
}

void addExteriorSound(RuleBook& book) {
    book.keys("ExteriorSound.notifications", [](const VehicleState& s) {
        const auto& c = s.controls;
        return Names{!c.ignition || !s.highVoltageOn ? "noNotification"
                     : c.gear == Gear::Reverse       ? "reversingSoundActive"
                     : !s.moving()                   ? "standstillSoundActive"
                     : s.speedKmh() < 30             ? "drivingSoundActive"
                                                     : "noNotification"};
    });
}

}  // namespace

void addBodyRules(RuleBook& book) {
    for (const auto add :
         {addCarBody, addCentralLocking, addDigitalKey, addAntiTheftSystem, addImmobilizer, addClampControl,
          addOccupantPresence, addSafetyBeltState, addBlinkingLight, addLamps, addLightFunctions,
          addEnvironmentalSensorData, addTemperature, addClimateControl, addBasicNotification,
          addTrailerHitchAssist, addExteriorSound}) {
        add(book);
    }
}

}  // namespace vlmVehicle
