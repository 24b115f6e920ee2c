#pragma once
/// Controls and quantities of the drive model by name, for scenarios, conditions and commands.
#include <functional>
#include <string>
#include <vector>

#include "tools/vehicle/DriveModel.h"

namespace vlmVehicle {

/// A control that scenarios set. Numbers are as in Controls; a switch is 0 or 1; a choice is the index of its
/// word.
struct ControlName {
    std::string name;
    std::string meaning;             ///< with unit
    std::vector<std::string> words;  ///< of a choice or switch ("off", "on"); empty for a number
    std::function<void(Controls&, double)> set;
    std::function<double(const Controls&)> get;
};

/// A quantity that conditions compare.
struct QuantityName {
    std::string name;
    std::string meaning;
    std::function<double(const VehicleState&)> get;
};

const std::vector<ControlName>& controlNames();
const ControlName* findControl(const std::string& name);
const std::vector<QuantityName>& quantityNames();

/// Sets a control from a text: a number or one of the words. Returns false with a reason that lists the
/// possible values.
bool setControl(Controls& controls, const std::string& name, const std::string& value, std::string& error);

/// "speed > 30 and chargeState <= 20": comparisons of quantities or controls with numbers or words.
class Condition {
  public:
    /// Returns false with a reason when the text is malformed.
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
