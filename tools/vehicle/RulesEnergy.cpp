// Battery, charge, range and consumption.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "tools/vehicle/RuleBook.h"

namespace vlmVehicle {

namespace {

using M = const Moment&;

/// kWh/100km on level road at constant speed: the learnt curve of this car.
double steadyConsumption(double kmh, double auxiliaryPower) {
    const double v = kmh / 3.6;
    const double force = Car::mass * 9.81 * Car::rollingResistance + 0.5 * 1.2 * Car::airDrag * v * v;
    return force * 100000 / 3.6e6 / 0.91 + auxiliaryPower / kmh * 100;
}

constexpr double curveSpeeds[] = {20, 30, 50, 60, 70, 80, 90, 100, 120, 130};
constexpr double thresholds[] = {10, 20, 30, 50, 60, 70, 80, 100, 120, 130};

/// The number at the end of an enumerator ("learntPoint7"), counted from 0.
std::size_t place(const std::string& name) {
    const auto digits = name.find_last_not_of("0123456789") + 1;
    int number = 0;
    std::from_chars(name.data() + digits, name.data() + name.size(), number);
    return static_cast<std::size_t>(std::clamp(number, 1, 10) - 1);
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

double storedEnergy(const VehicleState& s) {
    return Car::usableEnergy * s.stateOfCharge / 100;
}

/// kWh left at the destination.
double surplus(const VehicleState& s) {
    return storedEnergy(s) - s.controls.routeRemaining * s.averageConsumption / 100;
}

bool guided(M m) {
    return m.controls.routeRemaining > 0;
}

Reading onlyElectric(M m, double value) {
    return m.is("fuel") || m.is("fuelFull") ? notAvailable() : Reading(value);
}

double roadSpeed(M m) {
    return m.is("motorway")          ? 124
           : m.is("expressway")      ? 104
           : m.is("mainRoad")        ? 84
           : m.is("countryRoad")     ? 71
           : m.is("urbanMainRoad")   ? 43
           : m.is("residentialRoad") ? 27
                                     : 19;
}

double permittedSpeed(M m) {
    return m.is("walkingPace") ? 10 : m.is("town") ? 50 : m.is("country") ? 100 : 130;
}

void addDrivingRange(RuleBook& book) {
    book.add("DrivingRange.ranges",
             {{"rangePhysicalValue",
               [](M m) {
                   const auto& s = m.state;
                   if (m.is("atDestination")) {
                       return guided(m) ? Reading(std::max(0.0, s.range() - m.controls.routeRemaining))
                                        : notAvailable();
                   }
                   return onlyElectric(m, m.is("electricFull") ? s.rangeWhenFull()
                                          : m.is("economical") ? s.range() * 1.12
                                          : m.is("reserve")    ? s.rangeWhenFull() * 0.1
                                                               : s.range());
               }},
              {"rangeTendency",
               [](M m) {
                   const double change = m.state.recentConsumption / m.state.averageConsumption;
                   return change > 1.1 ? "worsening" : change < 0.9 ? "improving" : "steady";
               }},
              {"isReserve", [](M m) { return !m.is("fuel") && m.state.reserve(); }},
              {"fillLevel", [](M m) {
                   if (m.is("atDestination")) {
                       return guided(m) ? std::max(0.0, surplus(m.state)) / Car::usableEnergy * 100 : 0;
                   }
                   return m.is("fuel") ? 0 : m.state.stateOfCharge;
               }}});
    book.add("DrivingRange.rangeCalcConsumptions",
             {{"electricConsumptionPhysicalValue", [](M m) { return m.state.recentConsumption; }},
              {"fuelConsumptionPhysicalValue", [](M) { return notAvailable(); }},
              {"consumptionValueType", [](M m) { return m.is("fuel") ? "notAvailable" : "valid"; }}});
    book.add("DrivingRange.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   const bool active = m.is("reserveReached")          ? s.reserve()
                                       : m.is("destinationOutOfRange") ? m.controls.routeRemaining > s.range()
                                       : m.is("chargingStopAdvised")
                                           ? m.controls.routeRemaining > 0.8 * s.range()
                                       : m.is("rangeReducedByCold") ? s.batteryTemperature < 5
                                                                    : s.stateOfCharge < 1;
                   return active ? "active" : "inactive";
               }}});
    book.add("DrivingRange.status", {{"isActive", [](M m) {
                                          return m.is("rangeDisplay")            ? m.controls.ignition
                                                 : m.is("routeBasedCalculation") ? guided(m)
                                                 : m.is("rangeExtension")
                                                     ? m.controls.mode == DrivingMode::Eco
                                                     : false;
                                      }}});
}

void addEnergySystem(RuleBook& book) {
    book.add("EnergySystem.highVoltageBatteries",
             {{"chargingState",
               [](M m) {
                   const auto& s = m.state;
                   return !s.highVoltageOn        ? "fault"
                          : s.charging            ? (m.controls.chargeDc ? "chargingDc" : "chargingAc")
                          : m.controls.plugged    ? "chargingPaused"
                          : s.batteryPower < -0.5 ? "recuperating"
                          : s.batteryPower > 0.05 ? "discharging"
                                                  : "idle";
               }},
              {"relativeChargingStatePhysicalValue", [](M m) { return m.state.stateOfCharge; }}});
    book.add("EnergySystem.lowVoltageBatteries",
             {{"relativeChargingStatePhysicalValue",
               [](M m) { return m.is("backupBattery") ? 100 : m.state.lowVoltageCharge; }}});
    book.add("EnergySystem.lowVoltageSystemInfo",
             {{"powerManagementState",
               [](M m) {
                   return !m.state.highVoltageOn          ? "emergencySupply"
                          : m.state.lowVoltageCharge < 30 ? "parkedCutOff"
                          : m.state.lowVoltageCharge < 60 ? "comfortReduced"
                                                          : "unrestricted";
               }},
              {"systemVoltagePhysicalValue", [](M m) { return m.state.lowVoltage; }}});
    book.keys("EnergySystem.notifications", [](const VehicleState& s) {
        return std::vector<std::string>{s.lowVoltageCharge < 30 ? "lowVoltageBatteryWeak"
                                        : s.chargeCompleted     ? "chargingCompleted"
                                        : s.reserve()           ? "tractionBatteryLow"
                                                                : "noNotification"};
    });
}

void addHighVoltageBattery(RuleBook& book) {
    book.add("HighVoltageBattery.energy",
             {{"value",
               [](M m) {
                   const auto& s = m.state;
                   return m.is("dischargedTotal") ? s.energyDischarged
                          : m.is("chargedTotal") ? s.energyRecuperated + s.energyChargedAc + s.energyChargedDc
                          : m.is("recuperated")  ? s.energyRecuperated
                          : m.is("chargedAc")    ? s.energyChargedAc
                                                 : s.energyChargedDc;
               }},
              {"hasOverflowed", [](M) { return false; }}});
    book.add("HighVoltageBattery.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   return m.is("chargeLow") && s.reserve()                  ? "warning"
                          : m.is("batteryCold") && s.batteryTemperature < 0 ? "information"
                          : m.is("batteryHot") && s.batteryTemperature > 48 ? "warning"
                          : m.is("insulationLow") && s.crashSeverity >= 3   ? "critical"
                                                                            : "notPending";
               }}});
    book.keys("HighVoltageBattery.rtmWarnings", [](const VehicleState& s) {
        std::vector<std::string> pending;
        if (s.stateOfCharge < 5) {
            pending.emplace_back("chargeLow");
        }
        if (s.crashSeverity >= 3) {
            pending.emplace_back("insulation");
        }
        if (s.batteryTemperature > 55) {
            pending.emplace_back("temperatureHigh");
        }
        if (pending.empty()) {
            pending.emplace_back("noWarning");
        }
        return pending;
    });
    book.add("HighVoltageBattery.temperatureMeasurements",
             {{"subsystemNumber", [](M) { return 1; }},
              {"probeNumber", [](M m) { return m.is("maximum") ? 17 : 42; }},
              {"temperature", [](M m) {
                   const double spread = 0.8 + 0.004 * std::abs(m.state.packCurrent);
                   return m.state.batteryTemperature + (m.is("maximum") ? spread : -spread);
               }}});
    book.add("HighVoltageBattery.voltageMeasurements",
             {{"subsystemNumber", [](M) { return 1; }},
              {"moduleNumber", [](M m) { return m.is("maximum") ? 3 : 11; }},
              {"cellNumber", [](M m) { return m.is("maximum") ? 9 : 85; }},
              {"cellVoltage", [](M m) {
                   return m.is("maximum") ? m.state.cellVoltageMaximum : m.state.cellVoltageMinimum;
               }}});
}

void addHighVoltageCoordinator(RuleBook& book) {
    book.add("HighVoltageCoordinator.notifications",
             {{"value", [](M m) {
                   const auto& s = m.state;
                   const bool on = s.highVoltageOn;
                   if (m.is("preCharging")) {
                       return on && m.controls.ignition && s.startTime < 1 ? "transition" : "inactive";
                   }
                   if (m.is("insulation")) {
                       return s.crashSeverity >= 3 ? "warning" : "inactive";
                   }
                   const bool active = m.is("network") || m.is("contactors") || m.is("interlock") ? on
                                       : m.is("crashDisconnect")                                  ? !on
                                       : m.is("chargingConnector") ? m.controls.plugged
                                       : m.is("driveReadiness")
                                           ? on && m.controls.ignition && !m.controls.plugged
                                           : false;
                   return active ? "active" : "inactive";
               }}});
}

void addRouteConsumption(RuleBook& book) {
    book.add("RouteBasedConsumption.additionalConsumers",
             {{"powerPhysicalValue",
               [](M m) {
                   return m.is("present")              ? m.state.auxiliaryPower
                          : m.is("conditioning")       ? m.state.climatePower
                          : m.is("batteryPreparation") ? (m.state.batteryTemperature < 10 ? 4.0 : 0.0)
                                                       : 0.45;
               }},
              {"startEnergyPhysicalValue", [](M m) {
                   return m.is("conditioning")
                              ? std::abs(m.controls.climateTarget - m.state.interiorTemperature) * 0.04
                          : m.is("batteryPreparation") ? std::max(0.0, 10 - m.state.batteryTemperature) * 0.12
                                                       : 0.0;
               }}});
    book.add("RouteBasedConsumption.consumptionValues",
             {{"consumptionPhysicalValue",
               [](M m) {
                   const double reference = steadyConsumption(curveSpeeds[place(m.keyName)], 0.6);
                   const double learnt =
                       steadyConsumption(curveSpeeds[place(m.keyName)], 0.4 + m.state.auxiliaryPower);
                   return startsWith(m.keyName, "reference") ? reference
                          : startsWith(m.keyName, "eco")     ? reference * 0.9
                          : startsWith(m.keyName, "trailer") ? reference * 1.55
                                                             : learnt;
               }},
              {"learningProgressPhysicalValue", [](M m) {
                   return startsWith(m.keyName, "learnt")    ? std::min(100.0, 72 + m.state.tripDistance / 10)
                          : startsWith(m.keyName, "trailer") ? 0.0
                                                             : 100.0;
               }}});
    book.add("RouteBasedConsumption.customerActionTriggers",
             {{"physicalValue", [](M m) { return std::clamp(surplus(m.state), -50.0, 50.0); }}});
    book.add("RouteBasedConsumption.energyContents",
             {{"energyPhysicalValue",
               [](M m) { return m.is("fullContent") ? Car::usableEnergy : storedEnergy(m.state); }},
              {"isReducedByCold", [](M m) { return m.state.batteryTemperature < 5; }}});
    book.add(
        "RouteBasedConsumption.residualEnergies",
        {{"energyPhysicalValue", [](M m) { return guided(m) ? Reading(surplus(m.state)) : notAvailable(); }},
         {"uncertaintyPhysicalValue", [](M m) {
              return guided(m)
                         ? Reading(0.4 + m.controls.routeRemaining * m.state.averageConsumption / 100 * 0.08)
                         : notAvailable();
          }}});
    book.add("RouteBasedConsumption.roadConsumptionValues",
             {{"consumptionPhysicalValue",
               [](M m) { return steadyConsumption(roadSpeed(m), 0.4 + m.state.auxiliaryPower); }},
              {"meanSpeedPhysicalValue", [](M m) { return roadSpeed(m); }}});
    book.add("RouteBasedConsumption.slopeConsumptionValues",
             {{"energyPerHeightPhysicalValue",
               [](M m) {
                   const double perMetre = Car::mass * 9.81 / 3600;  // Wh
                   return m.is("uphill") ? perMetre / 0.91 : -perMetre * 0.86;
               }},
              {"learningState", [](M) { return "learning"; }}});
}

void addRouteSetup(RuleBook& book) {
    book.add("RouteBasedConsumption.setupRealSpeedRatios",
             {{"permittedSpeedPhysicalValue", [](M m) { return permittedSpeed(m); }},
              {"speedRatioPhysicalValue", [](M m) {
                   return m.is("walkingPace") ? 1.2 : m.is("town") ? 0.78 : m.is("country") ? 0.86 : 0.93;
               }}});
    book.add("RouteBasedConsumption.setupSpeedLimits",
             {{"isActive", [](M m) { return m.is("unlimitedRoad") || m.is("vehicleLimit"); }},
              {"speedLimitPhysicalValue", [](M m) {
                   return m.is("unlimitedRoad")  ? 130
                          : m.is("driverLimit")  ? 140
                          : m.is("trailerLimit") ? 80
                                                 : 200;
               }}});
    book.add("RouteBasedConsumption.setupSpeedThresholds",
             {{"thresholdPhysicalValue", [](M m) { return thresholds[place(m.keyName)]; }},
              {"isUpperBoundOpen", [](M m) { return place(m.keyName) == 9; }}});
    book.add("RouteBasedConsumption.status",
             {{"isActive", [](M m) {
                   return m.is("routeForecast") ? guided(m) : m.is("learning") || m.is("weatherCorrection");
               }}});
}

void addClimateControl(RuleBook& book) {
    book.add("ClimateControl.consumptions", {{"physicalValue",
                                              [](M m) {
                                                  const double share = m.is("refrigerantCompressor") ? 0.31
                                                                       : m.is("cabinHeater")         ? 0.34
                                                                       : m.is("windowHeating")       ? 0.03
                                                                       : m.is("surfaceHeating")      ? 0.07
                                                                       : m.is("blower")              ? 0.09
                                                                       : m.is("batteryConditioning") ? 0.10
                                                                                                     : 0.06;
                                                  return m.state.climateEnergy * share;
                                              }},
                                             {"hasOverflowed", [](M) { return false; }}});
}

}  // namespace

void addEnergyRules(RuleBook& book) {
    for (const auto add : {addDrivingRange, addEnergySystem, addHighVoltageBattery, addHighVoltageCoordinator,
                           addRouteConsumption, addRouteSetup, addClimateControl}) {
        add(book);
    }
}

}  // namespace vlmVehicle
