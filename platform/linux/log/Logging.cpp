#include "ara/log/logging.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "kyo/SignalsBlocked.h"
#include "kyo/Status.h"
#include "log/ConsoleSink.h"
#include "log/DltSink.h"
#include "log/LineQueue.h"
#include "log/PlatformLog.h"
#include "machine/Manifest.h"

namespace ara::log {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kQueueLines = 65'536;
constexpr std::size_t kQueueBytes = 16u << 20;
constexpr std::size_t kBigBatch = 256;
constexpr auto kGatherTime = milliseconds(1);
constexpr auto kFlushLimit = milliseconds(600);
constexpr auto kLetGoLimit = milliseconds(3000);
constexpr auto kLogPeriod = std::chrono::minutes(1);
constexpr auto kFirstLogDelay = std::chrono::seconds(1);

/// The queue, the thread and the sinks of all streams. Created by InitLogging and never destroyed: other
/// threads log until the process ends. Its thread ends in an exit handler that runs before libdlt's own.
class Backend {
  public:
    Backend(const std::string& appId, const std::string& description, LogLevel level, bool remote,
            bool console)
        : m_level(level) {
        if (console) {
            m_console = std::make_unique<ConsoleSink>(STDOUT_FILENO);
        }
        if (remote) {
            m_dlt = std::make_unique<DltSink>(appId, description);
            m_dltConnected.store(m_dlt->connected());
            m_wasConnected = m_dlt->connected();
            kyo::Status::gauge("log.dlt.connected",
                               [this] { return kyo::Json::Value(m_dltConnected.load()); });
        }
    }

    void start() {
        try {
            const kyo::SignalsBlocked whileItStarts;
            std::thread([this] { run(); }).detach();
            m_running.store(true);
        } catch (const std::system_error&) {
            // Without a thread there is no log; the application continues.
        }
    }

    void push(LogLevel level, std::string_view text) noexcept {
        if (level == LogLevel::kOff || level > m_level || !m_running.load(std::memory_order_relaxed)) {
            return;
        }
        if (!m_queue.push(text, static_cast<std::uint8_t>(level))) {
            if (m_console != nullptr) {
                m_droppedConsole.add();
            }
            if (m_dlt != nullptr) {
                m_droppedDlt.add();
            }
        }
    }

    /// Writes the waiting lines, for a limited time, and ends the thread.
    void end() {
        if (!m_running.load()) {
            return;
        }
        const auto deadline = Clock::now() + kFlushLimit;
        m_ending.store(true);
        m_queue.wake();
        while (!m_ended.load() && Clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        m_running.store(false);
        // Drop the remaining lines. The thread must have left libdlt before that library's own exit handler
        // runs; only an overloaded machine takes this long.
        m_givingUp.store(true);
        m_queue.wake();
        const auto last = Clock::now() + kLetGoLimit;
        while (!m_ended.load() && Clock::now() < last) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    }

  private:
    void run() {
        ::pthread_setname_np(::pthread_self(), "log");
        kyo::LineBuffer batch;
        for (;;) {
            const bool ending = m_ending.load();
            m_queue.drain(batch);
            const std::size_t lines = batch.lines();
            const std::int64_t wallClockAhead = kyo::wallClockAheadNs();
            for (; !batch.empty() && !m_givingUp.load(std::memory_order_relaxed); batch.pop()) {
                const kyo::LogLine line = batch.front();
                if (m_console != nullptr) {
                    m_console->put(line, line.uptimeNs + wallClockAhead);
                }
                if (m_dlt != nullptr) {
                    m_dlt->put(line);
                }
            }
            if (m_console != nullptr) {
                m_console->pump();
            }
            if (m_dlt != nullptr) {
                watchDaemon();
                m_dlt->pump(m_givingUp);
            }
            const bool pending =
                (m_console != nullptr && m_console->pending()) || (m_dlt != nullptr && m_dlt->pending());
            if (m_givingUp.load() || (ending && lines == 0 && !pending)) {
                break;
            }
            logDropped();
            sleep(lines);
        }
        if (m_dlt != nullptr) {
            m_dlt->prepareExit();
        }
        m_ended.store(true);
    }

    void sleep(std::size_t justDone) {
        if (m_dlt != nullptr && m_dlt->pending() && !m_dlt->blocked()) {
            return;  // continue at once
        }
        if (!m_queue.prepareSleep()) {
            if (justDone < kBigBatch) {
                std::this_thread::sleep_for(kGatherTime);
            }
            return;
        }
        std::array<pollfd, 3> wait{pollfd{m_queue.wakeDescriptor(), POLLIN, 0}, pollfd{-1, 0, 0},
                                   pollfd{-1, 0, 0}};
        if (m_console != nullptr && m_console->pending()) {
            wait[1] = {m_console->descriptor(), POLLOUT, 0};
        }
        milliseconds limit{-1};
        if (m_dlt != nullptr) {
            // poll() also reports the end of the daemon; without a daemon, check for it every second.
            wait[2] = {m_dlt->descriptor(), static_cast<short>(m_dlt->blocked() ? POLLOUT : 0), 0};
            limit = m_dlt->connected() ? milliseconds(-1) : milliseconds(1000);
        }
        if (m_logAt != Clock::time_point{}) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(m_logAt - Clock::now()) + milliseconds(1);
            limit = limit.count() < 0 ? std::max(left, milliseconds(0))
                                      : std::min(limit, std::max(left, milliseconds(0)));
        }
        if (m_ending.load()) {
            limit = milliseconds(2);
        }
        ::poll(wait.data(), wait.size(), static_cast<int>(limit.count()));
        // Lines come in bursts: a short wait saves a wake-up per line and gives a slow reader time.
        if (!m_ending.load()) {
            std::this_thread::sleep_for(kGatherTime);
        }
        m_queue.finishSleep();
    }

    void watchDaemon() {
        if (!m_dlt->probe(Clock::now())) {
            return;
        }
        m_dltConnected.store(m_dlt->connected());
        if (!m_dlt->connected()) {
            m_wasConnected = true;
            m_unreadBefore = m_unread.value();
            KYO_LOG(3, "The DLT daemon is gone; the log continues without it");
        } else if (m_wasConnected) {
            KYO_LOG(3,
                    "The DLT daemon is back; messages that it missed: " << m_unread.value() - m_unreadBefore);
        }
    }

    /// Logs the number of dropped lines, if any, at most once a minute.
    void logDropped() {
        const std::uint64_t console = m_droppedConsole.value();
        const std::uint64_t dlt = m_droppedDlt.value();
        if (console == m_loggedConsole && dlt == m_loggedDlt) {
            return;
        }
        const auto now = Clock::now();
        if (m_logAt == Clock::time_point{}) {
            m_logAt = std::max(now + kFirstLogDelay, m_noLogBefore);
        }
        if (now < m_logAt) {
            return;
        }
        KYO_LOG(3, "Log lines were dropped as their reader could not keep up: "
                       << console - m_loggedConsole << " for the console, " << dlt - m_loggedDlt
                       << " for the DLT daemon");
        m_loggedConsole = console;
        m_loggedDlt = dlt;
        m_noLogBefore = now + kLogPeriod;
        m_logAt = {};
    }

    // Constant after construction.
    const LogLevel m_level;
    kyo::Counter& m_droppedConsole = kyo::Status::counter("log.dropped.console");
    kyo::Counter& m_droppedDlt = kyo::Status::counter("log.dropped.dlt");
    kyo::Counter& m_unread = kyo::Status::counter("log.dlt.noDaemon");

    // Any thread.
    kyo::LineQueue m_queue{kQueueLines, kQueueBytes};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_ending{false};
    std::atomic<bool> m_givingUp{false};
    std::atomic<bool> m_ended{false};
    std::atomic<bool> m_dltConnected{false};

    // Used by the thread alone once it runs.
    std::unique_ptr<ConsoleSink> m_console;
    std::unique_ptr<DltSink> m_dlt;
    bool m_wasConnected = false;
    std::uint64_t m_unreadBefore = 0;
    std::uint64_t m_loggedConsole = 0;
    std::uint64_t m_loggedDlt = 0;
    Clock::time_point m_logAt{};        ///< when to log the drops; zero: nothing to log
    Clock::time_point m_noLogBefore{};  ///< not within a minute after the last time
};

std::atomic<Backend*> g_backend{nullptr};

}  // namespace

LogStream::~LogStream() {
    if (Backend* const backend = g_backend.load(std::memory_order_acquire); backend != nullptr) {
        backend->push(m_level, m_text);
    }
}

void InitLogging(std::string appId, std::string appDescription, LogLevel defaultLevel, LogMode mode,
                 std::string /*directoryPath*/) {
    static std::once_flag once;
    std::call_once(once, [&] {
        const machine::LogSettings& settings = machine::manifest().log;
        const auto asked = [mode](LogMode sink) {
            return (static_cast<std::uint8_t>(mode) & static_cast<std::uint8_t>(sink)) != 0;
        };
        const bool remote = settings.dlt && asked(LogMode::kRemote);
        // A process started without standard output gets no console.
        const bool console =
            settings.console && asked(LogMode::kConsole) && ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
        if (!remote && !console) {
            return;
        }
        auto* const backend = new Backend(appId, appDescription, defaultLevel, remote, console);
        backend->start();
        g_backend.store(backend, std::memory_order_release);
        // Registered after libdlt's own handler, so it runs before it.
        std::atexit([] { g_backend.load(std::memory_order_acquire)->end(); });
    });
}

LogStream LogFatal() {
    return LogStream(LogLevel::kFatal);
}
LogStream LogError() {
    return LogStream(LogLevel::kError);
}
LogStream LogWarn() {
    return LogStream(LogLevel::kWarn);
}
LogStream LogInfo() {
    return LogStream(LogLevel::kInfo);
}
LogStream LogDebug() {
    return LogStream(LogLevel::kDebug);
}
LogStream LogVerbose() {
    return LogStream(LogLevel::kVerbose);
}

}  // namespace ara::log
