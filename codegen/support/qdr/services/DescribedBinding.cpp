#include "qdr/services/DescribedBinding.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace qdr::services {

namespace {

/// Converts a value to an integer: true is 1, a number must have no fraction, a text is an enumerator's name.
struct WholeNumber {
    bool valid = false;
    bool negative = false;
    std::uint64_t magnitude = 0;
};

WholeNumber wholeNumber(const FieldInfo& field, const FieldValue& value) {
    WholeNumber result;
    const auto set = [&result](auto number) {
        result.valid = true;
        result.negative = number < 0;
        result.magnitude =
            result.negative ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
    };
    if (const auto* flag = std::get_if<bool>(&value)) {
        set(*flag ? std::int64_t{1} : std::int64_t{0});
    } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
        set(*number);
    } else if (const auto* count = std::get_if<std::uint64_t>(&value)) {
        result.valid = true;
        result.magnitude = *count;
    } else if (const auto* real = std::get_if<double>(&value)) {
        constexpr double beyond = 9223372036854775808.0;  // 2^63
        if (std::trunc(*real) == *real && *real >= -beyond && *real < beyond) {
            set(static_cast<std::int64_t>(*real));
        }
    } else {
        const std::string_view name = std::get<std::string>(value);
        const auto found =
            std::find_if(field.enumerators.begin(), field.enumerators.end(),
                         [name](const EnumeratorInfo& enumerator) { return name == enumerator.name; });
        if (found != field.enumerators.end()) {
            set(found->value);
        }
    }
    return result;
}

}  // namespace

std::string_view FieldInfo::nameOf(std::int64_t value) const {
    const auto found = std::ranges::find(enumerators, value, &EnumeratorInfo::value);
    return found == enumerators.end() ? std::string_view() : found->name;
}

const FieldInfo* DescribedEvent::find(std::string_view name) const {
    const auto found =
        std::ranges::find_if(fields(), [&](const FieldInfo& field) { return field.name == name; });
    return found == fields().end() ? nullptr : &*found;
}

const FieldInfo& DescribedEvent::indexField() const {
    const FieldInfo* const found = find(key());
    return found != nullptr ? *found : fields().front();
}

const FieldInfo* DescribedEvent::fieldOfState(std::string_view name) const {
    constexpr std::string_view suffix = "ValueType";
    if (!name.ends_with(suffix) || name.size() == suffix.size()) {
        return nullptr;
    }
    const std::string base(name.substr(0, name.size() - suffix.size()));
    const FieldInfo* const physical = find(base + "PhysicalValue");
    return physical != nullptr ? physical : find(base);
}

EventDescription describeEvent(const ac::com::EventInterface& event, std::span<const FieldRow> fields,
                               std::span<const IndexInfo> indexes, unsigned int cycleMs) {
    EventDescription description;
    description.name = event.name;
    description.interface = event;
    description.indexes.assign(indexes.begin(), indexes.end());
    description.cycleMs = cycleMs;
    for (const FieldRow& row : fields) {
        description.fields.push_back({row.name,
                                      row.type,
                                      row.unit,
                                      row.meaning,
                                      row.hasRange,
                                      row.minimum,
                                      row.maximum,
                                      {row.enumerators.begin(), row.enumerators.end()}});
    }
    return description;
}

std::vector<std::string> splitNames(std::string_view names) {
    std::vector<std::string> result;
    while (!names.empty()) {
        const std::size_t end = std::min(names.find(' '), names.size());
        result.emplace_back(names.substr(0, end));
        names.remove_prefix(std::min(end + 1, names.size()));
    }
    return result;
}

const FieldValue* SampleSource::find(std::size_t field) {
    const auto found = m_values.find(m_event.fields[field].name);
    if (found == m_values.end()) {
        return nullptr;
    }
    ++m_found;
    return &found->second;
}

void SampleSource::refuse(std::size_t field) {
    if (m_error.empty()) {
        const FieldInfo& info = m_event.fields[field];
        m_error = m_event.name + ": the value of " + info.name + " does not fit " + info.type;
    }
}

std::optional<std::int64_t> SampleSource::signedInteger(std::size_t field, const FieldValue& value,
                                                        std::int64_t minimum, std::int64_t maximum) {
    const WholeNumber number = wholeNumber(m_event.fields[field], value);
    const std::uint64_t limit =
        number.negative ? 0 - static_cast<std::uint64_t>(minimum) : static_cast<std::uint64_t>(maximum);
    if (!number.valid || number.magnitude > limit) {
        refuse(field);
        return std::nullopt;
    }
    return static_cast<std::int64_t>(number.negative ? 0 - number.magnitude : number.magnitude);
}

std::optional<std::uint64_t> SampleSource::unsignedInteger(std::size_t field, const FieldValue& value,
                                                           std::uint64_t maximum) {
    const WholeNumber number = wholeNumber(m_event.fields[field], value);
    if (!number.valid || number.negative || number.magnitude > maximum) {
        refuse(field);
        return std::nullopt;
    }
    return number.magnitude;
}

std::optional<double> SampleSource::real(std::size_t field, const FieldValue& value) {
    if (const auto* number = std::get_if<double>(&value)) {
        return *number;
    }
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
        return static_cast<double>(*number);
    }
    if (const auto* number = std::get_if<std::uint64_t>(&value)) {
        return static_cast<double>(*number);
    }
    refuse(field);
    return std::nullopt;
}

std::optional<std::string> SampleSource::text(std::size_t field, const FieldValue& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        return *text;
    }
    refuse(field);
    return std::nullopt;
}

std::string SampleSource::error() {
    if (m_error.empty() && m_found != m_values.size()) {
        for (const auto& [name, value] : m_values) {
            const bool known =
                std::any_of(m_event.fields.begin(), m_event.fields.end(),
                            [&name = name](const FieldInfo& field) { return name == field.name; });
            if (!known) {
                m_error = m_event.name + " has no field " + name;
                break;
            }
        }
    }
    return m_error;
}

}  // namespace qdr::services
