#pragma once
/// The names of the vehicle services' proxies, for code and tests that name a service. The registry is
/// generated from the descriptions in interfaces/; EveryEventTest compares their keys with these names.
#include <array>
#include <string_view>

namespace vlmProd::proxyNames {

inline constexpr std::string_view ACCProxy = "ACCProxy";
inline constexpr std::string_view CarBodyProxy = "CarBodyProxy";
inline constexpr std::string_view GNSSProxy = "GNSSProxy";
inline constexpr std::string_view ClampControlProxy = "ClampControlProxy";
inline constexpr std::string_view ExteriorSoundProxy = "ExteriorSoundProxy";
inline constexpr std::string_view HighVoltageCoordinatorProxy = "HighVoltageCoordinatorProxy";
inline constexpr std::string_view LaneAssistProxy = "LaneAssistProxy";
inline constexpr std::string_view ManeuverAssistProxy = "ManeuverAssistProxy";
inline constexpr std::string_view EnvironmentalSensorDataProxy = "EnvironmentalSensorDataProxy";
inline constexpr std::string_view ImmobilizerProxy = "ImmobilizerProxy";
inline constexpr std::string_view ExteriorLightProxy = "ExteriorLightProxy";
inline constexpr std::string_view SmartChargingStatisticSyncProxy = "SmartChargingStatisticSyncProxy";
inline constexpr std::string_view RouterBasedConsumptionProxy = "RouterBasedConsumptionProxy";
inline constexpr std::string_view ClimateControlProxy = "ClimateControlProxy";
inline constexpr std::string_view DrivingRangeProxy = "DrivingRangeProxy";
inline constexpr std::string_view ChassisProxy = "ChassisProxy";
inline constexpr std::string_view BasicNotificationProxy = "BasicNotificationProxy";
inline constexpr std::string_view AntiTheftSystemProxy = "AntiTheftSystemProxy";
inline constexpr std::string_view DisplaySpeedProxy = "DisplaySpeedProxy";
inline constexpr std::string_view BlinkingLightProxy = "BlinkingLightProxy";
inline constexpr std::string_view CentralLockingProxy = "CentralLockingProxy";
inline constexpr std::string_view AllWheelDriveProxy = "AllWheelDriveProxy";
inline constexpr std::string_view ElectricDriveProxy = "ElectricDriveProxy";
inline constexpr std::string_view DistanceProxy = "DistanceProxy";
inline constexpr std::string_view TemperatureProxy = "TemperatureProxy";
inline constexpr std::string_view EnergySystemProxy = "EnergySystemProxy";
inline constexpr std::string_view ParkingBrakeProxy = "ParkingBrakeProxy";
inline constexpr std::string_view TirednessDetectionProxy = "TirednessDetectionProxy";
inline constexpr std::string_view SafetyBeltStateProxy = "SafetyBeltStateProxy";
inline constexpr std::string_view SteeringAssistProxy = "SteeringAssistProxy";
inline constexpr std::string_view AirbagProxy = "AirbagProxy";
inline constexpr std::string_view DrivingProfileSelectionProxy = "DrivingProfileSelectionProxy";
inline constexpr std::string_view EmergencyAssistProxy = "EmergencyAssistProxy";
inline constexpr std::string_view EmergencyCallProxy = "EmergencyCallProxy";
inline constexpr std::string_view PreCrashProxy = "PreCrashProxy";
inline constexpr std::string_view OperationalSensorDataProxy = "OperationalSensorDataProxy";
inline constexpr std::string_view AWVProxy = "AWVProxy";
inline constexpr std::string_view DamperProxy = "DamperProxy";
inline constexpr std::string_view DigitalKeyProxy = "DigitalKeyProxy";
inline constexpr std::string_view DriverDisplayProxy = "DriverDisplayProxy";
inline constexpr std::string_view DrivePerformanceProxy = "DrivePerformanceProxy";
inline constexpr std::string_view ParkDistanceControlProxy = "ParkDistanceControlProxy";
inline constexpr std::string_view TrafficSignAssistProxy = "TrafficSignAssistProxy";
inline constexpr std::string_view RouteBasedConsumptionProxy = "RouteBasedConsumptionProxy";
inline constexpr std::string_view ObdInformationProxy = "ObdInformationProxy";
inline constexpr std::string_view AuthenticTimeProxy = "AuthenticTimeProxy";
inline constexpr std::string_view TrailerAssistProxy = "TrailerAssistProxy";
inline constexpr std::string_view TrailerHitchAssistProxy = "TrailerHitchAssistProxy";
inline constexpr std::string_view HighVoltageBatteryProxy = "HighVoltageBatteryProxy";
inline constexpr std::string_view VisualOdometryProxy = "VisualOdometryProxy";
inline constexpr std::string_view VehicleBasicDataProxy = "VehicleBasicDataProxy";
inline constexpr std::string_view OccupantPresenceProxy = "OccupantPresenceProxy";

/// All of them. Four have no entry in the registry: ManeuverAssistProxy, SmartChargingStatisticSyncProxy,
/// DisplaySpeedProxy and RouteBasedConsumptionProxy. The registry knows the last one's service as
/// RouterBasedConsumptionProxy.
// clang-format off
inline constexpr std::array<std::string_view, 52> all = {
    ACCProxy, CarBodyProxy, GNSSProxy, ClampControlProxy, ExteriorSoundProxy, HighVoltageCoordinatorProxy,
    LaneAssistProxy, ManeuverAssistProxy, EnvironmentalSensorDataProxy, ImmobilizerProxy,
    ExteriorLightProxy, SmartChargingStatisticSyncProxy, RouterBasedConsumptionProxy, ClimateControlProxy,
    DrivingRangeProxy, ChassisProxy, BasicNotificationProxy, AntiTheftSystemProxy, DisplaySpeedProxy,
    BlinkingLightProxy, CentralLockingProxy, AllWheelDriveProxy, ElectricDriveProxy, DistanceProxy,
    TemperatureProxy, EnergySystemProxy, ParkingBrakeProxy, TirednessDetectionProxy, SafetyBeltStateProxy,
    SteeringAssistProxy, AirbagProxy, DrivingProfileSelectionProxy, EmergencyAssistProxy,
    EmergencyCallProxy, PreCrashProxy, OperationalSensorDataProxy, AWVProxy, DamperProxy, DigitalKeyProxy,
    DriverDisplayProxy, DrivePerformanceProxy, ParkDistanceControlProxy, TrafficSignAssistProxy,
    RouteBasedConsumptionProxy, ObdInformationProxy, AuthenticTimeProxy, TrailerAssistProxy,
    TrailerHitchAssistProxy, HighVoltageBatteryProxy, VisualOdometryProxy, VehicleBasicDataProxy,
    OccupantPresenceProxy};
// clang-format on

}  // namespace vlmProd::proxyNames
