#pragma once
/// A battery-electric car with two driven axles, as far as its services can see it. Everything is computed
/// from driver and surroundings (Controls) and from elapsed time: wheel speeds from speed and curve, power
/// from acceleration, slope and air, charge and range from power, and so on, so that the services are
/// consistent. The model uses no clock; step() gets the elapsed time.
#include <array>
#include <cstdint>
#include <random>

namespace vlmVehicle {

enum class Gear { Park, Reverse, Neutral, Drive };
enum class Indicator { Off, Left, Right };
enum class Impact { None, Front, Rear, Left, Right, Rollover };
enum class DrivingMode { Eco, Comfort, Normal, Sport, Individual };
/// Order of all arrays over doors and windows.
enum Door { FrontLeft, FrontRight, RearLeft, RearRight, DoorCount };
/// Order of all arrays over seats and belts.
enum Seat { Driver, FrontPassenger, BackLeft, BackMiddle, BackRight, SeatCount };

/// Actions of driver and passengers, and the surroundings. Set at any time between two steps.
struct Controls {
    // Driving
    double targetSpeed = 0;  ///< km/h that the driver wants; negative in reverse
    double curvature = 0;    ///< 1/km; positive turns right. 20 is a curve of 50 m radius
    double slope = 0;        ///< %; positive is uphill
    double speedLimit = 50;  ///< km/h; 0 where there is none
    Gear gear = Gear::Drive;
    bool ignition = true;
    bool parkingBrake = false;
    bool emergencyBraking = false;  ///< the driver brakes as hard as the road allows
    bool handsOnWheel = true;
    DrivingMode mode = DrivingMode::Comfort;
    // Adaptive cruise control
    bool cruiseControl = false;
    double leadDistance = 0;  ///< m to the vehicle ahead when set; 0 for none
    double leadSpeed = 0;     ///< km/h of the vehicle ahead
    // Lights
    Indicator indicator = Indicator::Off;
    bool hazard = false;
    bool highBeam = false;
    bool rearFog = false;
    // Body
    std::array<bool, DoorCount> doorOpen{};
    std::array<double, DoorCount> windowOpen{};  ///< %
    bool tailgateOpen = false;
    bool hoodOpen = false;
    double sunroofOpen = 0;  ///< %
    bool locked = false;
    bool keyInside = true;
    std::array<bool, SeatCount> occupied{true, false, false, false, false};
    std::array<bool, SeatCount> belted{true, false, false, false, false};
    bool wiper = false;
    bool alarm = false;  ///< somebody breaks in while the car is locked
    // Surroundings
    double outsideTemperature = 12;  ///< degC
    double humidity = 65;            ///< %
    double brightness = 20000;       ///< lx
    double rain = 0;                 ///< mm/h
    bool tunnel = false;             ///< no satellites, and dark
    double friction = 0.9;           ///< of the road; 0.2 is ice
    double obstacleDistance = 0;     ///< m to the obstacle at the parking sensors; 0 for none
    // Comfort
    bool climate = true;
    double climateTarget = 21;  ///< degC
    // Charging
    bool plugged = false;
    double chargePower = 0;  ///< kW that the charger offers
    bool chargeDc = false;
    double chargeLimit = 80;    ///< %
    double routeRemaining = 0;  ///< km to the destination of the route guidance; 0 without guidance
    // An accident: happens at the next step, which sets it back to None
    Impact impact = Impact::None;
};

struct Axle {
    double wheelSpeedLeft = 0;       ///< m/s
    double wheelSpeedRight = 0;      ///< m/s
    double torque = 0;               ///< N·m at the machine; negative recuperates
    double rotation = 0;             ///< 1/min of the machine
    double windingTemperature = 15;  ///< degC
};

/// The state of the car at one moment.
struct VehicleState {
    Controls controls;
    double time = 0;  ///< s since the model began

    double latitude = 48.7758;  ///< deg, WGS 84
    double longitude = 9.1829;
    double altitude = 250;           ///< m above mean sea level
    double heading = 0;              ///< deg clockwise from north, 0 to below 360
    double speed = 0;                ///< m/s; negative in reverse
    double acceleration = 0;         ///< m/s²
    double lateralAcceleration = 0;  ///< m/s², positive to the left
    double yawRate = 0;              ///< deg/s, positive to the right
    double climbRate = 0;            ///< m/s upwards
    Axle front;
    Axle rear;
    double acceleratorPedal = 0;  ///< %
    bool brakePedal = false;
    bool stabilityIntervention = false;
    bool antilockIntervention = false;
    double standstillTime = 0;  ///< s since the car stopped; 0 while it moves

    double odometer = 18431.6;   ///< km
    double tripDistance = 0;     ///< km since the start
    double sinceCharge = 212.4;  ///< km since the battery was charged

    double gap = 0;                  ///< m to the vehicle ahead; 0 for none
    double gapRate = 0;              ///< m/s; closing is negative
    double batteryPower = 0;         ///< kW out of the battery; negative charges
    double drivePower = 0;           ///< kW of both machines
    double auxiliaryPower = 0;       ///< kW of all other consumers
    double climatePower = 0;         ///< kW
    double stateOfCharge = 68;       ///< % of the usable content
    double batteryTemperature = 17;  ///< degC, mean of the cells
    double packVoltage = 400;        ///< V
    double packCurrent = 0;          ///< A; positive discharges
    double cellVoltageMaximum = 3.9;
    double cellVoltageMinimum = 3.9;
    double energyDischarged = 4127;  ///< kWh over the car's life
    double energyRecuperated = 846;
    double energyChargedAc = 2731;
    double energyChargedDc = 748;
    double climateEnergy = 391;        ///< kWh over the car's life
    double averageConsumption = 18.5;  ///< kWh/100km over the last 20 km or so
    double recentConsumption = 18.5;   ///< kWh/100km over the last 2 km or so
    bool charging = false;
    bool chargeCompleted = false;
    bool highVoltageOn = true;
    double lowVoltage = 14.2;      ///< V of the 12 V network
    double lowVoltageCharge = 88;  ///< %

    double interiorTemperature = 18;  ///< degC
    bool doorsUnlockedByCrash = false;
    double lockTime = 100;    ///< s since locked or unlocked
    double gearTime = 100;    ///< s since the gear was changed
    double startTime = 100;   ///< s since the ignition was switched
    double drivingTime = 0;   ///< s at the wheel without a break
    double timeSinceFix = 0;  ///< s without satellites

    Impact impact = Impact::None;  ///< the last accident; stays
    int crashCounter = 0;
    int crashSeverity = 0;     ///< 0 none, 1 below deployment, 2 belt tensioner, 3 airbag, 4 second stage
    double deltaVelocity = 0;  ///< km/h, change of velocity in the accident, along the axis of the impact
    double crashTime = 0;      ///< s since the accident

    // Slowly wandering errors of the receiver, m
    double fusedErrorNorth = 0, fusedErrorEast = 0;
    double satelliteErrorNorth = 0, satelliteErrorEast = 0;

    bool moving() const { return speed > 0.05 || speed < -0.05; }
    bool dark() const { return controls.tunnel || controls.brightness < 1000; }
    double speedKmh() const { return speed * 3.6; }
    double range() const;           ///< km with the present charge
    double rangeWhenFull() const;   ///< km
    double dewPoint() const;        ///< degC, outside
    double availablePower() const;  ///< kW
    bool reserve() const { return stateOfCharge < 10; }
    bool brakeLight() const { return brakePedal || acceleration < -1.3; }
};

/// Measures of the car.
struct Car {
    static constexpr double mass = 2210;     // kg
    static constexpr double airDrag = 0.62;  // m², drag coefficient times area
    static constexpr double rollingResistance = 0.0095;
    static constexpr double wheelbase = 2.95;           // m
    static constexpr double track = 1.62;               // m
    static constexpr double tyreCircumference = 2.212;  // m
    static constexpr double gearRatio = 9.8;
    static constexpr double usableEnergy = 77;      // kWh
    static constexpr int cells = 96;                // in series
    static constexpr double packResistance = 0.06;  // ohm
    static constexpr double frontShare = 0.35;      // of the drive's force
};

class DriveModel {
  public:
    explicit DriveModel(unsigned seed = 1);

    Controls& controls() { return m_state.controls; }
    VehicleState& state() { return m_state; }
    const VehicleState& state() const { return m_state; }

    /// Advances the model by `seconds`, in short steps.
    void step(double seconds);

    /// Replaces the driver by a recorded position and speed; everything else is computed from these. Call
    /// before step(), whenever there is a new point.
    void follow(double latitude, double longitude, double altitude, double speed, double heading);
    /// Returns control to the driver.
    void release() { m_following = false; }

  private:
    struct Fix {
        double latitude, longitude, altitude, speed, heading;
    };

    void shortStep(double dt);
    /// Driver and cruise control set the acceleration, which moves the car.
    void drive(double dt);
    bool canDrive() const;
    double wantedSpeed(double dt);
    void accelerate(double wanted, double dt);
    void steer(double dt);
    void pedals(double wanted);
    void followRecord(double dt);
    void strike(double dt);
    void wheels();
    void energy(double dt);
    double forceAtWheels() const;
    void drivePower();
    double batteryPower(double dt);
    void battery(double power, double hours);
    void distance(double power, double dt);
    void temperatures(double dt);
    void receiver(double dt);
    void clocks(double dt);

    VehicleState m_state;
    Controls m_previous;
    bool m_following = false;
    Fix m_fix{};
    double m_strike = 0;  ///< s until the end of the impact
    double m_strikeDeceleration = 0;
    std::mt19937 m_random;
};

}  // namespace vlmVehicle
