// kyo: the parts that the interface's headers leave to the platform.
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <sstream>

#include "kyo/DateTime.h"
#include "kyo/Json.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "kyo/Thread.h"

namespace kyo {

unsigned long long DateTime::getCurrentTimeMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<unsigned long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// JSON

namespace Json {

bool Reader::parse(const std::string& text, Value& root, bool /*collectComments*/) {
    ::Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<::Json::CharReader> reader(builder.newCharReader());
    m_errors.clear();
    root = Value();
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &root, &m_errors)) {
            return true;
        }
    } catch (const std::exception& error) {
        m_errors = error.what();
    }
    root = Value();
    return false;
}

bool Reader::parse(std::istream& stream, Value& root, bool collectComments) {
    std::ostringstream text;
    text << stream.rdbuf();
    return parse(text.str(), root, collectComments);
}

bool appendCompact(std::string& out, const Value& value) {
    ::Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    try {
        out += ::Json::writeString(builder, value);
        return true;
    } catch (const std::exception&) {
        out += "null";
        return false;
    }
}

std::string FastWriter::write(const Value& value) const {
    std::string text;
    appendCompact(text, value);
    return text;
}

}  // namespace Json

// Log: lines go only to the product logger.

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

// Status: counters that live until the process ends.

namespace {

struct Registry {
    std::mutex guard;
    std::map<std::string, std::unique_ptr<Counter>> counters;
    std::map<std::string, std::function<Json::Value()>> gauges;
};

Registry& registry() {
    static auto* const instance = new Registry;
    return *instance;
}

}  // namespace

Counter& Status::counter(const std::string& name) {
    const std::lock_guard lock(registry().guard);
    auto& slot = registry().counters[name];
    if (!slot) {
        slot = std::make_unique<Counter>();
    }
    return *slot;
}

void Status::gauge(const std::string& name, std::function<Json::Value()> read) {
    const std::lock_guard lock(registry().guard);
    registry().gauges[name] = std::move(read);
}

std::map<std::string, std::uint64_t> Status::counters() {
    std::map<std::string, std::uint64_t> counts;
    const std::lock_guard lock(registry().guard);
    for (const auto& [name, counter] : registry().counters) {
        counts[name] = counter->value();
    }
    return counts;
}

Json::Value Status::snapshot() {
    Json::Value flat(Json::objectValue);
    for (const auto& [name, count] : counters()) {
        flat[name] = static_cast<Json::UInt64>(count);
    }
    std::map<std::string, std::function<Json::Value()>> gauges;
    {
        const std::lock_guard lock(registry().guard);
        gauges = registry().gauges;
    }
    for (const auto& [name, read] : gauges) {
        flat[name] = read();
    }
    return flat;
}

// Thread

Thread::~Thread() {
    Thread::detach();
}

void Thread::start() {
    const std::lock_guard lock(m_guard);
    if (!m_started) {
        m_thread = std::thread([this] { run(); });
        m_started = true;
    }
}

void Thread::stop() {}

void Thread::exit() {}

void Thread::join() {
    std::thread mine;
    {
        const std::lock_guard lock(m_guard);
        mine = std::move(m_thread);
    }
    if (mine.joinable()) {
        mine.join();
    }
}

void Thread::detach() {
    const std::lock_guard lock(m_guard);
    if (m_thread.joinable()) {
        m_thread.detach();
    }
}

}  // namespace kyo
