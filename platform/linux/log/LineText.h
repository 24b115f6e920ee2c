#pragma once
/// The format of a log line on a console or in a file: "2026-03-11 14:05:09.123 INFO  text".
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

namespace kyo {

/// Formats local time with milliseconds. Not thread-safe: it caches the text of the last second.
class ClockText {
  public:
    std::string_view text(std::int64_t wallNs) {
        const std::int64_t second = wallNs / 1'000'000'000;
        if (second != m_second) {
            m_second = second;
            const std::time_t time = second;
            std::tm local{};
            ::localtime_r(&time, &local);
            std::strftime(m_text, sizeof m_text, "%Y-%m-%d %H:%M:%S.000", &local);
        }
        const auto ms = static_cast<unsigned>(wallNs / 1'000'000 % 1000);
        constexpr std::size_t kFraction = 20;
        m_text[kFraction] = static_cast<char>('0' + ms / 100);
        m_text[kFraction + 1] = static_cast<char>('0' + ms / 10 % 10);
        m_text[kFraction + 2] = static_cast<char>('0' + ms % 10);
        return {m_text, kFraction + 3};
    }

  private:
    std::int64_t m_second = -1;
    char m_text[40] = {};
};

/// Appends one line. The text after a line break is indented, so that content cannot fake a log line. Other
/// control characters become dots, so that content cannot control a terminal.
inline void appendLine(std::string& out, std::string_view time, std::string_view level,
                       std::string_view text) {
    out.append(time).push_back(' ');
    out.append(level).push_back(' ');
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    std::size_t from = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        if ((c >= 0x20 && c != 0x7F) || c == '\t') {
            continue;
        }
        out.append(text, from, at - from);
        out.append(c == '\n' ? "\n    " : ".");
        from = at + 1;
    }
    out.append(text, from, std::string_view::npos);
    out.push_back('\n');
}

}  // namespace kyo
