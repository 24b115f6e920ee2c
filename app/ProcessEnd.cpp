#include "app/ProcessEnd.h"

#include <botan/secmem.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace vlmProd {

void skipDestructorsAtExit() {
    // Exit handlers and destructors run in the reverse order of their registration. The first use registers
    // the destructor of Botan's locked memory, in which digests are computed: so it comes before the handler.
    [[maybe_unused]] const Botan::secure_vector<std::uint8_t> first(1);
    ::on_exit(
        [](int status, void*) {
            std::fflush(stdout);
            ::_exit(status);
        },
        nullptr);
}

}  // namespace vlmProd
