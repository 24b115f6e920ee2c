#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace vlmProd {

/// What an untrusted JSON text may hold. The values that a text becomes take up to fifty times its size, so
/// the text is checked before they are created.
struct TextLimits {
    std::size_t bytes = 0;
    std::size_t depth = 0;   ///< arrays and objects inside each other
    std::size_t values = 0;  ///< of any type, at any depth; an empty array or object counts as two
};

/// True while the text is within the limits. Otherwise `fault` gets the limit, and the offset at which it is
/// exceeded. Reads each byte once and allocates nothing; whether the text is JSON is the JSON reader's
/// matter.
bool isWithin(const TextLimits& limits, std::string_view text, std::string& fault);

}  // namespace vlmProd
