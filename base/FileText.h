#pragma once
#include <string>

namespace vlmProd {

/// Reads a whole file. Returns false, with an empty `text`, when it cannot be opened or read, or is a folder.
bool readWholeFile(const std::string& path, std::string& text);

}  // namespace vlmProd
