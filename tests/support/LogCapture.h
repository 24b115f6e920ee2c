#pragma once
/// Captures the application's log lines, of any thread, while the object lives; one at a time.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kyo/Log.h"

namespace vlmTest {

struct LoggedLine {
    int level = 0;
    std::string text;     ///< the whole line
    std::string message;  ///< the text after the prefix and a blank; empty for an entry trace
};

/// Parses a line: "<signature>:<line> <message>", or "<signature> <message>" with a signature that ends with
/// ')' or '>'.
inline LoggedLine parseLogLine(int level, const std::string& text) {
    const std::size_t closing = text.find(')');
    for (std::size_t at = text.find(':', closing == std::string::npos ? 0 : closing); at != std::string::npos;
         at = text.find(':', at + 1)) {
        const std::size_t end = std::min(text.find_first_not_of("0123456789", at + 1), text.size());
        if (end > at + 1 && (end == text.size() || text[end] == ' ')) {
            return {level, text, text.substr(std::min(end + 1, text.size()))};
        }
    }
    const std::size_t lambda = text.find(")> ");
    const std::size_t end = lambda != std::string::npos ? lambda + 1 : text.find(") ");
    return {level, text, end == std::string::npos ? text : text.substr(end + 2)};
}

class LogCapture {
  public:
    explicit LogCapture(int level = 7) : m_levelBefore(kyo::Log::getReportingLevel()) {
        clear();
        kyo::Log::setProductLogger(&sink());
        kyo::Log::setReportingLevel(level);
    }
    ~LogCapture() {
        kyo::Log::setReportingLevel(m_levelBefore);
        kyo::Log::setProductLogger(nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void clear() {
        const std::lock_guard<std::mutex> lock(sink().guard);
        sink().lines.clear();
    }

    std::vector<LoggedLine> lines() const {
        const std::lock_guard<std::mutex> lock(sink().guard);
        return sink().lines;
    }

    /// The messages of one level, in order, without entry traces; of all levels for -1.
    std::vector<std::string> messages(int level = -1) const {
        std::vector<std::string> out;
        for (const LoggedLine& line : lines()) {
            if ((level < 0 || line.level == level) && !line.message.empty()) {
                out.push_back(line.message);
            }
        }
        return out;
    }

    /// The number of lines with exactly that message at that level (any for -1).
    std::size_t count(int level, const std::string& message) const {
        return static_cast<std::size_t>(std::ranges::count(messages(level), message));
    }
    bool has(int level, const std::string& message) const { return count(level, message) > 0; }

    /// The number of messages at that level (any for -1) that contain `part`.
    std::size_t countParts(int level, const std::string& part) const {
        return static_cast<std::size_t>(std::ranges::count_if(
            messages(level), [&](const std::string& one) { return one.find(part) != std::string::npos; }));
    }
    bool hasPart(int level, const std::string& part) const { return countParts(level, part) > 0; }

    /// Waits for `times` messages that contain `part`. Returns false at the deadline.
    bool waitFor(const std::string& part, std::size_t times = 1) const {
        std::unique_lock lock(sink().guard);
        const auto hasPart = [&](const LoggedLine& line) {
            return line.message.find(part) != std::string::npos;
        };
        return sink().changed.wait_for(lock, std::chrono::seconds(20), [&] {
            return std::ranges::count_if(sink().lines, hasPart) >= static_cast<std::ptrdiff_t>(times);
        });
    }

  private:
    class Sink : public kyo::ProductLogger {
      public:
        void logData(std::string message, kyo::LogLevel level) override {
            LoggedLine line = parseLogLine(level, message);
            const std::lock_guard<std::mutex> lock(guard);
            lines.push_back(std::move(line));
            changed.notify_all();
        }
        std::mutex guard;
        std::condition_variable changed;
        std::vector<LoggedLine> lines;  ///< guarded by guard
    };

    // Never destroyed: a detached thread of an earlier test may still log.
    static Sink& sink() {
        static Sink* const instance = new Sink;
        return *instance;
    }

    int m_levelBefore;
};

}  // namespace vlmTest
