#pragma once
/// "Did you mean": the known name nearest to an unknown one.
#include <cstddef>
#include <string>
#include <vector>

namespace vlmCheck {

/// The number of edits (insert, remove, replace, swap of neighbours) between two texts, ignoring case.
std::size_t editDistance(const std::string& left, const std::string& right);

/// The nearest of `known`, or the empty string when none is near enough for a typing error.
std::string nearest(const std::string& text, const std::vector<std::string>& known);

/// Returns "did you mean "GNSS"?", or the empty string.
std::string didYouMean(const std::string& text, const std::vector<std::string>& known);

/// Returns "a, b, c", or "a, b, ... (43 in all)" if there are many.
std::string listed(const std::vector<std::string>& names);

}  // namespace vlmCheck
