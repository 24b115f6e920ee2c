#include "tools/vehicle/RuleBook.h"

namespace vlmVehicle {

const RuleBook& RuleBook::standard() {
    static const RuleBook book = [] {
        RuleBook all;
        addDrivingRules(all);
        addEnergyRules(all);
        addBodyRules(all);
        addAssistanceRules(all);
        return all;
    }();
    return book;
}

void RuleBook::add(const std::string& event, std::initializer_list<std::pair<const char*, Rule>> fields) {
    for (const auto& [field, rule] : fields) {
        m_rules[event + "." + field] = rule;
    }
}

const Rule* RuleBook::rule(const std::string& event, const std::string& field) const {
    const auto found = m_rules.find(event + "." + field);
    return found == m_rules.end() ? nullptr : &found->second;
}

const KeysRule* RuleBook::keysRule(const std::string& event) const {
    const auto found = m_keys.find(event);
    return found == m_keys.end() ? nullptr : &found->second;
}

std::vector<std::string> RuleBook::names() const {
    std::vector<std::string> result;
    for (const auto& [name, rule] : m_rules) {
        result.push_back(name);
    }
    for (const auto& [name, rule] : m_keys) {
        result.push_back(name + ".");
    }
    return result;
}

double timeToCollision(const VehicleState& state) {
    return state.gap > 0 && state.gapRate < -0.5 ? state.gap / -state.gapRate : -1;
}

}  // namespace vlmVehicle
