#pragma once
/// Creates the samples of any described event from the drive model.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "qdr/services/described.h"
#include "tools/vehicle/RuleBook.h"
#include "tools/vehicle/Scenario.h"

namespace vlmVehicle {

class SampleMaker {
  public:
    explicit SampleMaker(const RuleBook& rules = RuleBook::standard()) : m_rules(rules) {}

    /// The samples of one notification: for a keyed event one per key value with a writer, for others one per
    /// applicable value of the first member. May be empty. Fields without a rule get a plausible value inside
    /// their range.
    std::vector<qdr::services::FieldValues> make(const std::string& service,
                                                 const qdr::services::DescribedEvent& event,
                                                 const VehicleState& state, std::uint64_t wallMs,
                                                 const std::vector<const FieldOverride*>& overrides = {});

  private:
    const RuleBook& m_rules;
    std::map<std::pair<const qdr::services::DescribedEvent*, int>, std::uint64_t> m_counts;
};

/// Converts a value to the type and range of the field. An enumerator that the field does not have becomes
/// its first one.
qdr::services::FieldValue fit(const Reading& reading, const qdr::services::FieldInfo& field);

}  // namespace vlmVehicle
