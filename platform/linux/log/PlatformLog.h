#pragma once
/// Logging for the platform's own sources: "<function signature>:<line> <message>", composed only when the
/// level is enabled.
#include <string>
#include <string_view>

#include "kyo/Log.h"

namespace kyo {

/// A call site's prefix, without the name that the compiler gives to an unnamed namespace.
inline std::string callSite(std::string_view prettyFunction, int line) {
    constexpr std::string_view kUnnamed = "{anonymous}::";
    std::string text(prettyFunction);
    for (auto at = text.find(kUnnamed); at != std::string::npos; at = text.find(kUnnamed)) {
        text.erase(at, kUnnamed.size());
    }
    return text + ':' + std::to_string(line) + ' ';
}

}  // namespace kyo

#define KYO_LOG(level, ...)                                                       \
    do {                                                                          \
        if (::kyo::Log::enabled(level)) {                                         \
            /* Never destroyed: detached threads log while the process ends. */   \
            static const auto& kyoCallSite =                                      \
                *new std::string(::kyo::callSite(__PRETTY_FUNCTION__, __LINE__)); \
            ::kyo::Log kyoLogLine;                                                \
            kyoLogLine.get(level) << kyoCallSite << __VA_ARGS__;                  \
        }                                                                         \
    } while (false)
