#pragma once
/// Offers described services and sends their events: values from the drive model under a scenario or a
/// recorded track, samples from CSV files, and faults on request.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "qdr/services/described.h"
#include "tools/vehicle/DriveModel.h"
#include "tools/vehicle/Faults.h"
#include "tools/vehicle/Replay.h"
#include "tools/vehicle/SampleMaker.h"
#include "tools/vehicle/Scenario.h"

namespace vlmVehicle {

struct VehicleOptions {
    std::vector<std::string> services;        ///< empty: all that are described
    double rate = 1;                          ///< how much faster than their natural rates events are sent
    unsigned periodMs = 0;                    ///< one period for all events; 0: their natural ones
    std::map<std::string, unsigned> periods;  ///< ms of single events, by "Service.event"
    std::string scenario;                     ///< file; empty: the plain drive
    std::string track;                        ///< GPX file; takes the place of the driver
    std::vector<std::pair<std::string, std::string>> recordings;  ///< "Service.event" and CSV file
    bool loop = false;  ///< recordings and track start again at their end
    std::vector<Fault> faults;
    double timeFactor = 1;  ///< s of drive in one s
    double startTime = 0;   ///< s that the drive is to be advanced before it begins
    unsigned seed = 1;
};

class Vehicle {
  public:
    /// `print` gets whole lines without their end, from any thread.
    using Print = std::function<void(const std::string& line)>;

    Vehicle(VehicleOptions options, Print print);

    /// Makes the services and reads the files. False with a reason when something is unknown or wrong.
    bool prepare(std::string& error);
    /// Offers everything and says so. `now` is any steady time in s, as in advance().
    void start(double now);
    /// Does all that is due at `now`; answers when to be called again at the latest.
    double advance(double now);
    /// A line of the operator: a fault, "set CONTROL VALUE", "status", "help". False with a reason.
    bool command(const std::string& line, std::string& error);
    /// Takes back all offers.
    void stop();

    std::string statusLine() const;
    /// One line per event that was subscribed or sent.
    std::vector<std::string> summary() const;
    double elapsed() const { return m_elapsed; }
    /// True once a fault has asked for it; the caller replaces the process.
    bool restartWanted() const { return m_restart; }
    /// Recordings without `loop` have come to their end, or the scenario has.
    bool finished() const;

  private:
    struct EventState {
        qdr::services::DescribedEvent* event;
        std::string service;
        std::string path;   ///< "Service.event"
        double period = 1;  ///< s
        std::optional<CsvRecording> recording;
        std::size_t next = 0;  ///< notification of the recording
        double recordingStart = 0;
        std::uint64_t samples = 0;
        std::uint64_t notifications = 0;
        std::uint64_t failures = 0;
        std::uint64_t faulty = 0;
        std::string lastError;
    };
    struct Due {
        double time;
        std::size_t event;
        bool operator>(const Due& other) const { return time > other.time; }
    };
    struct Silence {
        Fault fault;
        double until;  ///< 0: until told otherwise
    };

    void driveTo(double now);
    void apply(const Fault& fault);
    void send(EventState& state);
    double period(const EventState& state) const;
    bool concernsSomething(const Fault& fault) const;

    VehicleOptions m_options;
    const Print m_print;
    std::vector<std::unique_ptr<qdr::services::DescribedService>> m_services;
    std::vector<EventState> m_events;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> m_due;
    DriveModel m_model;
    std::optional<ScenarioPlayer> m_player;
    GpxTrack m_track;
    SampleMaker m_samples;
    std::vector<Fault> m_timed;  ///< ascending by time
    std::size_t m_nextFault = 0;
    std::vector<Fault> m_wireFaults;  ///< with notifications left
    std::vector<Silence> m_silences;
    double m_start = 0;
    double m_driven = 0;  ///< s of real time that the model has seen
    double m_elapsed = 0;
    std::uint64_t m_late = 0;
    bool m_restart = false;
    std::string m_lastPhase;
};

}  // namespace vlmVehicle
