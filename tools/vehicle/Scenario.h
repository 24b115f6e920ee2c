#pragma once
/// A scenario for the vehicle from one JSON file: where the car starts, and phases in which controls change
/// by time and condition. docs/vehicle.md describes the format.
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kyo/Json.h"
#include "tools/vehicle/DriveModel.h"
#include "tools/vehicle/Names.h"

namespace vlmVehicle {

/// Forces one field of one event to a value instead of the model's.
struct FieldOverride {
    std::string service, event, field;
    std::optional<int> key;  ///< only samples with that key value
    double from = 0;         ///< s since the phase (or the scenario) began
    double to = 0;           ///< s; 0 for the whole time
    std::optional<Condition> condition;
    /// null leaves the field out of the sample; a text is an enumerator's name or a text.
    kyo::Json::Value value;
};

struct Scenario {
    struct Change {
        double time = 0;                                       ///< s since the phase began
        std::vector<std::pair<std::string, std::string>> set;  ///< control and value
    };
    struct Course {  ///< a control that is interpolated between points
        std::string control;
        std::vector<std::pair<double, double>> points;  ///< s since the phase began, value
    };
    struct Reaction {
        Condition condition;
        Change change;
        bool once = true;
    };
    struct Phase {
        std::string name;
        double duration = 0;
        std::optional<Condition> condition;  ///< checked at its start: the phase is skipped if false
        std::optional<Condition> until;      ///< ends the phase early
        std::vector<Change> changes;         ///< ascending by time
        std::vector<Course> courses;
        std::vector<Reaction> reactions;
        std::vector<FieldOverride> overrides;
    };

    std::string name;
    std::string description;
    bool loop = false;
    kyo::Json::Value start;  ///< initial values of the model's state
    std::vector<Phase> phases;
    std::vector<FieldOverride> overrides;
    std::vector<std::string> faults;  ///< as given to --fault

    double duration() const;

    /// Returns false with a reason that names the path ("phases[2].course.targetSpeed: ...").
    static bool read(const kyo::Json::Value& document, Scenario& out, std::string& error);
    static bool readFile(const std::string& path, Scenario& out, std::string& error);
    /// An endless drive through town and country, for a vehicle without a scenario.
    static Scenario plainDrive();
};

/// Drives a model through a scenario.
class ScenarioPlayer {
  public:
    explicit ScenarioPlayer(Scenario scenario) : m_scenario(std::move(scenario)) {}

    const Scenario& scenario() const { return m_scenario; }
    /// Sets the model to the start of the scenario.
    void begin(DriveModel& model);
    /// Advances the scenario by `seconds` and sets the controls. Call before the model's step of that length.
    /// Does nothing once the scenario is over.
    void advance(DriveModel& model, double seconds);

    bool over() const { return m_phase >= m_scenario.phases.size(); }
    /// Name of the current phase; empty when the scenario is over.
    std::string phase() const { return over() ? "" : m_scenario.phases[m_phase].name; }
    /// s since the scenario began, not restarted by a loop.
    double time() const { return m_time; }
    /// The overrides in force.
    std::vector<const FieldOverride*> overrides(const VehicleState& state) const;

  private:
    void apply(DriveModel& model, const Scenario::Change& change);
    bool enterNext(const VehicleState& state);

    Scenario m_scenario;
    std::size_t m_phase = 0;
    double m_time = 0;
    double m_phaseTime = 0;
    std::size_t m_nextChange = 0;
    std::vector<bool> m_reacted;
};

}  // namespace vlmVehicle
