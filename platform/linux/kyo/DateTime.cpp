#include "kyo/DateTime.h"

#include <chrono>

namespace kyo {

unsigned long long DateTime::getCurrentTimeMs() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<unsigned long long>(duration_cast<milliseconds>(now).count());
}

}  // namespace kyo
