#pragma once
/// Common parts of the generated registrations.
#include <cstdint>
#include <rttr/type>

#include "eb/com/optional.h"

namespace qdr::services {

/// Makes optional enumerations in a variant convertible; see registration.h.
template <typename E>
void registerOptional() {
    rttr::type::register_converter_func([](const eb::com::optional<E>& value, bool& ok) -> std::int64_t {
        ok = value.has_value();
        return static_cast<std::int64_t>(value.value_or(E{}));
    });
}

}  // namespace qdr::services
