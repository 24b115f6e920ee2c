#pragma once
/// Application logging: one application, one default context, streams chosen by level.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace ara::log {

enum class LogLevel : std::uint8_t {
    kOff = 0,
    kFatal = 1,
    kError = 2,
    kWarn = 3,
    kInfo = 4,
    kDebug = 5,
    kVerbose = 6,
};

/// Bit mask of sinks. The platform may switch any of them off, and decides about files alone.
enum class LogMode : std::uint8_t {
    kRemote = 0x01,
    kFile = 0x02,
    kConsole = 0x04,
};
constexpr LogMode operator|(LogMode a, LogMode b) {
    return static_cast<LogMode>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}

/// One message; it goes out when the object ends.
class LogStream {
  public:
    explicit LogStream(LogLevel level) : m_level(level) {}
    LogStream(LogStream&& other) noexcept : m_level(other.m_level), m_text(std::move(other.m_text)) {
        other.m_level = LogLevel::kOff;  // what was moved from sends nothing
    }
    LogStream& operator=(LogStream&&) = delete;
    ~LogStream();

    LogStream& operator<<(std::string_view text) {
        m_text.append(text);
        return *this;
    }
    /// Takes the text over where the message has none yet.
    LogStream& operator<<(std::string&& text) {
        if (m_text.empty()) {
            m_text = std::move(text);
        } else {
            m_text.append(text);
        }
        return *this;
    }

  private:
    LogLevel m_level;
    std::string m_text;
};

/// Starts the sinks named by `mode`. A second call changes nothing. Messages sent before go nowhere, nor do
/// those above `defaultLevel`. At exit what waits is flushed, for a bounded time.
///
/// No message waits for a sink: what a sink does not take in time is dropped, counted and logged once a
/// minute.
void InitLogging(std::string appId, std::string appDescription, LogLevel defaultLevel, LogMode mode,
                 std::string directoryPath);

LogStream LogFatal();
LogStream LogError();
LogStream LogWarn();
LogStream LogInfo();
LogStream LogDebug();
LogStream LogVerbose();

}  // namespace ara::log
