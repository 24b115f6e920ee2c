#pragma once
/// Log lines, composed with <<. A line is composed in a local kyo::Log object, which passes it on whole when
/// it ends:
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

/// Where finished lines go. logData() may be called from any thread.
class ProductLogger {
  public:
    virtual ~ProductLogger() = default;
    virtual void logData(std::string message, LogLevel level) = 0;
};

/// Text under composition. Numbers are written as the standard streams would write them by default
/// (bool as 0 or 1, doubles with six significant digits), JSON values as compact text.
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

    /// One allocation for a line of usual length; the text is moved on from here to the sinks.
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
    /// Hands the composed line to the product logger and to the file output, where their levels allow.
    ~Log();

    /// The stream to compose a line of that level in.
    LogStream& get(LogLevel level) {
        m_level = level;
        m_stream.prepare();
        return m_stream;
    }

    /// The highest level that the product logger gets. Starts at 0.
    static LogLevel getReportingLevel() noexcept { return s_reportingLevel.load(std::memory_order_relaxed); }
    /// The highest level that goes to a log file of the platform's; -1 while there is none.
    static LogLevel getFileOutputLevel() noexcept { return s_fileLevel.load(std::memory_order_relaxed); }
    /// Asks for a level; the platform may set a lower one.
    static void setReportingLevel(LogLevel level) noexcept;
    /// Installs the receiver of lines, which must live until the process ends. nullptr removes it.
    static void setProductLogger(ProductLogger* logger) noexcept;
    /// True when a line of that level would go anywhere: the test that call sites make before composing.
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
