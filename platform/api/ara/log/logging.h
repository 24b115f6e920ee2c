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

/// Bit mask of sinks. The platform may switch any of them off; it alone decides about kFile.
enum class LogMode : std::uint8_t {
    kRemote = 0x01,
    kFile = 0x02,
    kConsole = 0x04,
};
constexpr LogMode operator|(LogMode a, LogMode b) {
    return static_cast<LogMode>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}

/// One message. The destructor sends it.
class LogStream {
  public:
    explicit LogStream(LogLevel level) : m_level(level) {}
    LogStream(LogStream&& other) noexcept : m_level(other.m_level), m_text(std::move(other.m_text)) {
        other.m_level = LogLevel::kOff;  // a moved-from stream sends nothing
    }
    LogStream& operator=(LogStream&&) = delete;
    ~LogStream();

    LogStream& operator<<(std::string_view text) {
        m_text.append(text);
        return *this;
    }
    /// Moves the text when the message is still empty.
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

/// Starts the sinks named by `mode`. A second call changes nothing. Messages sent earlier, and those above
/// `defaultLevel`, are ignored. At exit the sinks get a limited time to write what is queued.
///
/// No caller waits for a sink: messages that a sink does not take in time are dropped and counted, and their
/// number is logged once a minute.
void InitLogging(std::string appId, std::string appDescription, LogLevel defaultLevel, LogMode mode,
                 std::string directoryPath);

LogStream LogFatal();
LogStream LogError();
LogStream LogWarn();
LogStream LogInfo();
LogStream LogDebug();
LogStream LogVerbose();

}  // namespace ara::log
