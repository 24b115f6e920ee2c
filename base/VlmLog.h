#pragma once
/// The application's log macros. A line is "<function signature>:<line> <message>".
///
///     VLM_LOG(5, "Size = " << size);          signature, line, message
///     VLM_LOG_PLAIN(5, "Exiting from main");  signature and message, without the line
///     VLM_LOG_AT(7, 226, "...");              a line number that is part of the message
///     VLM_TRACE(7);                           entry trace: signature and line only
///     VLM_LOG_AS(5, signature, "...");        with the caller's signature text
///     VLM_LOG_PLAIN_AS(5, signature, "...");  the same without the line
///
/// A message whose level is off costs one comparison; its arguments are not evaluated. The prefix is composed
/// once per call site.
#include <string>
#include <string_view>

#include "kyo/Log.h"

namespace vlmProd {

/// Converts the compiler's signature to its form in the log: strings as "string", JSON values as
/// "kyo::Json::Value", references and pointers without a blank before them.
std::string logSignature(std::string_view prettyFunction);

/// A call site's prefix. Created once and never destroyed: detached threads log while the process ends.
const std::string& logPrefix(std::string_view prettyFunction);              ///< "<signature> "
const std::string& logPrefix(std::string_view prettyFunction, int line);    ///< "<signature>:<line> "
const std::string& tracePrefix(std::string_view prettyFunction, int line);  ///< "<signature>:<line>"

}  // namespace vlmProd

#define VLM_LOG_COMPOSE_(level, prefix, ...)                            \
    do {                                                                \
        if (::kyo::Log::enabled(level)) {                               \
            static const std::string& vlmLogPrefix = ::vlmProd::prefix; \
            ::kyo::Log vlmLogLine;                                      \
            vlmLogLine.get(level) << vlmLogPrefix << __VA_ARGS__;       \
        }                                                               \
    } while (false)

#define VLM_LOG_AT(level, line, ...) \
    VLM_LOG_COMPOSE_(level, logPrefix(__PRETTY_FUNCTION__, line), __VA_ARGS__)
#define VLM_LOG(level, ...) VLM_LOG_AT(level, __LINE__, __VA_ARGS__)
#define VLM_LOG_PLAIN(level, ...) VLM_LOG_COMPOSE_(level, logPrefix(__PRETTY_FUNCTION__), __VA_ARGS__)
#define VLM_TRACE(level) VLM_LOG_COMPOSE_(level, tracePrefix(__PRETTY_FUNCTION__, __LINE__), "")

// The signature may differ from call to call (one body for many classes), so the prefix is not cached.
#define VLM_LOG_AS(level, signature, ...)                                                \
    do {                                                                                 \
        if (::kyo::Log::enabled(level)) {                                                \
            ::kyo::Log vlmLogLine;                                                       \
            vlmLogLine.get(level) << signature << ':' << __LINE__ << ' ' << __VA_ARGS__; \
        }                                                                                \
    } while (false)
#define VLM_LOG_PLAIN_AS(level, signature, ...)                       \
    do {                                                              \
        if (::kyo::Log::enabled(level)) {                             \
            ::kyo::Log vlmLogLine;                                    \
            vlmLogLine.get(level) << signature << ' ' << __VA_ARGS__; \
        }                                                             \
    } while (false)
