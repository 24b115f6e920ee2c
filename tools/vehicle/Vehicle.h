#pragma once
/// Offers described services and sends their events: samples from the drive model (with a scenario or a
/// recorded track) or from CSV files, and faults on request.
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
    std::vector<std::string> services;        ///< empty: all described services
    double rate = 1;                          ///< factor on the natural rates of events
    unsigned periodMs = 0;                    ///< one period for all events; 0: their natural ones
    std::map<std::string, unsigned> periods;  ///< ms of single events, by "Service.event"
    std::string scenario;                     ///< file; empty: the plain drive
    std::string track;                        ///< GPX file; replaces the driver
    std::vector<std::pair<std::string, std::string>> recordings;  ///< "Service.event" and CSV file
    bool loop = false;  ///< recordings and track restart at their end
    std::vector<Fault> faults;
    double timeFactor = 1;  ///< s of drive in one s
    double startTime = 0;   ///< s by which the drive is advanced at the start
    unsigned seed = 1;
};

class Vehicle {
  public:
    /// `print` gets whole lines without a line end, on any thread.
    using Print = std::function<void(const std::string& line)>;

    Vehicle(VehicleOptions options, Print print);

    /// Creates the services and reads the files. Returns false with a reason when a name is unknown or a file
    /// wrong.
    bool prepare(std::string& error);
    /// Offers everything and prints that. `now` is a steady time in s, as in advance().
    void start(double now);
    /// Does everything that is due at `now`. Returns the latest time of the next call.
    double advance(double now);
    /// Executes a command: a fault, "set CONTROL VALUE", "status" or "help". Returns false with a reason.
    bool command(const std::string& line, std::string& error);
    /// Stops all offers.
    void stop();

    std::string statusLine() const;
    /// One line per event that was subscribed or sent.
    std::vector<std::string> summary() const;
    double elapsed() const { return m_elapsed; }
    /// True once a fault has requested a restart; the caller restarts the process.
    bool restartWanted() const { return m_restart; }
    /// True when the recordings (without `loop`) or the scenario have ended.
    bool finished() const;

  private:
    struct EventState {
        qdr::services::DescribedEvent* event;
        std::string service;
        std::string path;   ///< "Service.event"
        double period = 1;  ///< s
        std::optional<CsvRecording> recording;
        std::size_t next = 0;  ///< index of the next notification
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
        double until;  ///< 0: until "speak"
    };

    void driveTo(double now);
    void apply(const Fault& fault);
    void send(EventState& state);
    double period(const EventState& state) const;
    bool concernsSomething(const Fault& fault) const;
    EventState* find(const std::string& path);

    // The steps of prepare(), with the same result.
    bool createServices(std::string& error);
    bool readRecordings(std::string& error);
    bool readScenario(Scenario& scenario, std::string& error);
    bool check(const FieldOverride& entry, std::string& error);
    bool scheduleFaults(std::string& error);
    void driveToStart(Scenario scenario);
    bool refuseEvent(const std::string& path, std::string& error) const;

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
    std::vector<Fault> m_wireFaults;  ///< with notifications left to send
    std::vector<Silence> m_silences;
    double m_start = 0;
    double m_driven = 0;  ///< s of real time that the model was advanced
    double m_elapsed = 0;
    std::uint64_t m_late = 0;
    bool m_restart = false;
    std::string m_lastPhase;
};

}  // namespace vlmVehicle
