#pragma once
/// "Did you mean": the known name nearest to one that is not known.
#include <cstddef>
#include <string>
#include <vector>

namespace vlmCheck {

/// Edits (insert, remove, replace, swap of neighbours) that turn one text into the other, letter case
/// ignored.
std::size_t editDistance(const std::string& left, const std::string& right);

/// The nearest of `known`, or the empty string when none is near enough to be a slip of the pen.
std::string nearest(const std::string& text, const std::vector<std::string>& known);

/// "did you mean "GNSS"?", or the empty string.
std::string didYouMean(const std::string& text, const std::vector<std::string>& known);

/// "a, b, c"; "a, b, ... (43 in all)" when there are many.
std::string listed(const std::vector<std::string>& names);

}  // namespace vlmCheck
