#include "base/Version.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace vlmProd {

const char* version() noexcept {
    return VLM_VERSION;
}

bool printVersion(int argc, const char* const* argv, const char* command) {
    if (std::find(argv, argv + argc, std::string_view("--version")) == argv + argc) {
        return false;
    }
    std::printf("%s %s\n", command, version());
    return true;
}

}  // namespace vlmProd
