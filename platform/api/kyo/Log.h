#pragma once
/// Log lines, composed with << in a local kyo::Log object, whose destructor passes the whole line on:
///     if (kyo::Log::enabled(5)) { kyo::Log line; line.get(5) << "text " << value; }
#include <atomic>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "kyo/Json.h"

namespace kyo {

using LogLevel = int;

/// Receives finished lines. Any thread may call logData().
class ProductLogger {
  public:
    virtual ~ProductLogger() = default;
    virtual void logData(std::string message, LogLevel level) = 0;
};

/// A text being composed. Numbers have the standard streams' default form (bool as 0 or 1, doubles
/// with six significant digits), JSON values are compact text.
class LogStream {
  public:
    LogStream& operator<<(std::string_view text) {
        m_text.append(text);
        return *this;
    }
    LogStream& operator<<(const char* text) { return *this << std::string_view(text); }
    LogStream& operator<<(const std::string& text) { return *this << std::string_view(text); }
    LogStream& operator<<(char c) {
        m_text.push_back(c);
        return *this;
    }
    LogStream& operator<<(bool value) { return *this << (value ? '1' : '0'); }
    template <std::integral T>
    LogStream& operator<<(T value) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        m_text.append(digits, end);
        return *this;
    }
    template <typename T>
    requires std::is_enum_v<T> LogStream& operator<<(T value) {
        return *this << static_cast<std::underlying_type_t<T>>(value);
    }
    LogStream& operator<<(double value);
    LogStream& operator<<(const Json::Value& value);

    std::string& text() { return m_text; }

    /// Reserves room for a line of usual length, so that it costs one allocation; the sinks get the text by
    /// move.
    void prepare() {
        if (m_text.capacity() < kUsualLength) {
            m_text.reserve(kUsualLength);
        }
    }

  private:
    static constexpr std::size_t kUsualLength = 240;

    std::string m_text;
};

class Log {
  public:
    Log() = default;
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    /// Hands the line to the product logger and to the file output, if their levels allow it.
    ~Log();

    /// Returns the stream in which to compose a line of this level.
    LogStream& get(LogLevel level) {
        m_level = level;
        m_stream.prepare();
        return m_stream;
    }

    /// The highest level that the product logger gets. Starts at 0.
    static LogLevel getReportingLevel() noexcept { return s_reportingLevel.load(std::memory_order_relaxed); }
    /// The highest level that goes to the platform's log file; -1 without one.
    static LogLevel getFileOutputLevel() noexcept { return s_fileLevel.load(std::memory_order_relaxed); }
    /// Requests a level; the platform may limit it.
    static void setReportingLevel(LogLevel level) noexcept;
    /// Installs the receiver of all lines, which must live until the process ends. nullptr removes it.
    static void setProductLogger(ProductLogger* logger) noexcept;
    /// True when some output takes lines of this level. Call sites check this before they compose a line.
    static bool enabled(LogLevel level) noexcept {
        return getReportingLevel() >= level || getFileOutputLevel() >= level;
    }

  private:
    static std::atomic<LogLevel> s_reportingLevel;
    static std::atomic<LogLevel> s_fileLevel;
    static std::atomic<ProductLogger*> s_productLogger;

    LogStream m_stream;
    LogLevel m_level = 0;
};

}  // namespace kyo
