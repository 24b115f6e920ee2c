#pragma once
/// Logging for the platform's own sources: "<function signature>:<line> <message>", composed only when the
/// level is enabled.
#include "kyo/Log.h"

#define KYO_LOG(level, ...)                                                                        \
    do {                                                                                           \
        if (::kyo::Log::enabled(level)) {                                                          \
            ::kyo::Log kyoLogLine;                                                                 \
            kyoLogLine.get(level) << __PRETTY_FUNCTION__ << ':' << __LINE__ << ' ' << __VA_ARGS__; \
        }                                                                                          \
    } while (false)
