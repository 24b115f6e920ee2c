#pragma once
#include <string>

#include "qdr/services/described.h"

namespace vlmTest {

/// A value that the field can have; a different one for each field of an event.
inline qdr::services::FieldValue valueFor(const qdr::services::FieldInfo& field, std::size_t place) {
    const std::string type = field.type;
    if (!field.enumerators.empty()) {
        return field.enumerators[place % field.enumerators.size()].value;
    }
    if (type == "bool") {
        return place % 2 == 0;
    }
    if (type == "string") {
        return "text " + std::to_string(place);
    }
    if (type == "float" || type == "double") {
        return -0.25 * static_cast<double>(place);  // exact in both widths
    }
    if (field.hasRange) {
        return static_cast<std::int64_t>(field.minimum) + static_cast<std::int64_t>(place % 2);
    }
    const auto value = static_cast<std::int64_t>(place % 100);
    return type[0] == 'u' ? value : -value;
}

}  // namespace vlmTest
