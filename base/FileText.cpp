#include "base/FileText.h"

#include <fstream>
#include <iterator>

namespace vlmProd {

bool readWholeFile(const std::string& path, std::string& text) {
    text.clear();
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file.is_open()) {
        return false;
    }
    try {
        text.assign(std::istreambuf_iterator<char>(file), {});
    } catch (const std::ios_base::failure&) {  // a folder can be opened, but not read
        text.clear();
    }
    return true;
}

}  // namespace vlmProd
