#pragma once
#include <string_view>

namespace vlmProd {

/// True for a counter of lost samples, records, reports or envelopes, or of unusable messages.
bool countsLoss(std::string_view name);
/// True for a counter of lost log lines.
bool countsLostLogLines(std::string_view name);

}  // namespace vlmProd
