#pragma once
#include <string>

namespace vlmProd {

/// Reads a whole file. Returns false, with an empty `text`, when it cannot be opened. A folder gives true and
/// an empty text.
bool readWholeFile(const std::string& path, std::string& text);

}  // namespace vlmProd
