#pragma once
#include <string>

namespace vlmProd {

/// The bytes of a whole file. False when it cannot be opened or read, or is a folder; `text` is then empty.
bool readWholeFile(const std::string& path, std::string& text);

}  // namespace vlmProd
