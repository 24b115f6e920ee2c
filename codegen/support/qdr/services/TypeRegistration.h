#pragma once
/// What the generated registrations share.
#include <cstdint>
#include <rttr/type>

#include "eb/com/optional.h"

namespace qdr::services {

/// Makes an optional enumeration convertible in a variant, see registration.h.
template <typename E>
void registerOptional() {
    rttr::type::register_converter_func([](const eb::com::optional<E>& value, bool& ok) -> std::int64_t {
        ok = value.has_value();
        return static_cast<std::int64_t>(value.value_or(E{}));
    });
}

}  // namespace qdr::services
