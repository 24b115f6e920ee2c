// kyo's log: lines go to the product logger alone.
#include "kyo/Log.h"

#include <sstream>

namespace kyo {

std::atomic<LogLevel> Log::s_reportingLevel{0};
std::atomic<LogLevel> Log::s_fileLevel{-1};
std::atomic<ProductLogger*> Log::s_productLogger{nullptr};

LogStream& LogStream::operator<<(double value) {
    std::ostringstream text;
    text << value;
    return *this << text.str();
}

LogStream& LogStream::operator<<(const Json::Value& value) {
    Json::appendCompact(m_text, value);
    return *this;
}

Log::~Log() {
    if (ProductLogger* const logger = s_productLogger.load();
        logger != nullptr && m_level <= s_reportingLevel) {
        logger->logData(std::move(m_stream.text()), m_level);
    }
}

void Log::setReportingLevel(LogLevel level) noexcept {
    s_reportingLevel = level;
}

void Log::setProductLogger(ProductLogger* logger) noexcept {
    s_productLogger = logger;
}

}  // namespace kyo
