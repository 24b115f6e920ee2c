#pragma once
/// How the platform's own sources log: "<function signature>:<line> <message>", composed only when the level
/// is on.
#include "kyo/Log.h"

#define KYO_LOG(level, ...)                                                                        \
    do {                                                                                           \
        if (::kyo::Log::enabled(level)) {                                                          \
            ::kyo::Log kyoLogLine;                                                                 \
            kyoLogLine.get(level) << __PRETTY_FUNCTION__ << ':' << __LINE__ << ' ' << __VA_ARGS__; \
        }                                                                                          \
    } while (false)
