#pragma once
#include <optional>

namespace eb::com {

/// A member that a sample may leave out.
template <typename T>
using optional = std::optional<T>;

}  // namespace eb::com
