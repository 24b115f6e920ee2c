#include "base/LossCounters.h"

#include <algorithm>
#include <array>

namespace vlmProd {

bool countsLoss(std::string_view name) {
    // Without "orx.failed" and "reports.resendFailed", which count attempts.
    constexpr std::array<std::string_view, 9> kOthers{
        "someip.kernelDropped", "someip.malformed", "someip.truncated",
        "someip.sd.malformed",  "threads.failed",   "reports.failed",
        "reports.discarded",    "orx.givenUp",      "spool.setAside"};
    if (countsLostLogLines(name)) {
        return false;
    }
    const bool dropped = name.find(".dropped.") != std::string_view::npos || name.ends_with(".dropped");
    return dropped || std::ranges::find(kOthers, name) != kOthers.end();
}

bool countsLostLogLines(std::string_view name) {
    return name.starts_with("log.dropped.");
}

}  // namespace vlmProd
