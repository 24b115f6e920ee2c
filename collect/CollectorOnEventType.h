#pragma once
#include <cstdint>

namespace vlmProd {

/// What drives a collector: the periodic tick of a clock, or a compare on-event.
enum class CollectorOnEventType : std::int32_t { Clock = 0, Compare = 1 };

}  // namespace vlmProd
