#pragma once
#include <string>

namespace vlmProd {

/// Reads a whole file. Returns false when it cannot be opened. `text` is then empty, as it is for a folder.
bool readWholeFile(const std::string& path, std::string& text);

}  // namespace vlmProd
