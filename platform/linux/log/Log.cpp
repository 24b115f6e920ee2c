#include "kyo/Log.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "kyo/Status.h"
#include "log/LogFile.h"
#include "machine/Manifest.h"

namespace kyo {

std::atomic<LogLevel> Log::s_reportingLevel{0};
std::atomic<LogLevel> Log::s_fileLevel{-1};
std::atomic<ProductLogger*> Log::s_productLogger{nullptr};

LogStream& LogStream::operator<<(double value) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, 6).ptr;
    m_text.append(digits, end);
    return *this;
}

LogStream& LogStream::operator<<(const Json::Value& value) {
    Json::appendCompact(m_text, value);
    return *this;
}

Log::~Log() {
    static Counter& lines = Status::counter("log.lines");
    const bool toFile = m_level <= getFileOutputLevel();
    ProductLogger* const logger =
        m_level <= getReportingLevel() ? s_productLogger.load(std::memory_order_acquire) : nullptr;
    if (!toFile && logger == nullptr) {
        return;
    }
    lines.add();
    try {
        if (toFile) {
            LogFile::write(m_stream.text(), m_level);
        }
        if (logger != nullptr) {
            logger->logData(std::move(m_stream.text()), m_level);
        }
    } catch (...) {  // a destructor must not throw for a log line
        static Counter& failed = Status::counter("log.dropped.failed");
        failed.add();
    }
}

void Log::setReportingLevel(LogLevel level) noexcept {
    const machine::LogSettings& settings = machine::manifest().log;
    s_reportingLevel.store(std::min(level, settings.maxLevel), std::memory_order_relaxed);
    static std::once_flag fileOpened;
    std::call_once(fileOpened, [&settings] {
        if (!settings.file.empty() && LogFile::open(settings.file, settings.fileMaxBytes)) {
            s_fileLevel.store(settings.fileLevel, std::memory_order_relaxed);
        }
    });
}

void Log::setProductLogger(ProductLogger* logger) noexcept {
    s_productLogger.store(logger, std::memory_order_release);
}

}  // namespace kyo
