#pragma once
/// Controls and quantities of the drive model by name: what scenarios, conditions and commands are written
/// in.
#include <functional>
#include <string>
#include <vector>

#include "tools/vehicle/DriveModel.h"

namespace vlmVehicle {

/// One thing that a scenario sets. Numbers are as in Controls; a switch is 0 or 1; a choice is the index of
/// its word.
struct ControlName {
    std::string name;
    std::string meaning;             ///< with unit
    std::vector<std::string> words;  ///< of a choice or switch ("off", "on"); empty for a number
    std::function<void(Controls&, double)> set;
    std::function<double(const Controls&)> get;
};

/// One thing that a condition asks.
struct QuantityName {
    std::string name;
    std::string meaning;
    std::function<double(const VehicleState&)> get;
};

const std::vector<ControlName>& controlNames();
const ControlName* findControl(const std::string& name);
const std::vector<QuantityName>& quantityNames();

/// Sets a control from a text: a number, or one of the words. False with a reason that names what is
/// possible.
bool setControl(Controls& controls, const std::string& name, const std::string& value, std::string& error);

/// "speed > 30 and chargeState <= 20": comparisons of quantities or controls with numbers or words.
class Condition {
  public:
    /// False with a reason when the text is not understood.
    static bool parse(const std::string& text, Condition& out, std::string& error);
    bool holds(const VehicleState& state) const;

  private:
    struct Comparison {
        std::function<double(const VehicleState&)> left;
        std::string sign;
        double right;
    };
    std::vector<Comparison> m_all;
};

}  // namespace vlmVehicle
