#include "log/LogFile.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <thread>
#include <utility>

#include "kyo/SignalsBlocked.h"
#include "kyo/Status.h"
#include "log/LineQueue.h"
#include "log/LineText.h"

namespace kyo {

namespace {

constexpr std::size_t kMaxLines = 65'536;
constexpr std::size_t kMaxBytes = 16u << 20;
constexpr auto kFlushLimit = std::chrono::milliseconds(500);

class Writer {
  public:
    Writer(std::string path, int file, std::uint64_t size, std::uint64_t maxBytes)
        : m_path(std::move(path)), m_maxBytes(maxBytes), m_file(file), m_size(size) {}

    LineQueue& queue() { return m_queue; }
    void countDropped() { m_dropped.add(); }

    void start() {
        const SignalsBlocked whileItStarts;
        std::thread([this] { run(); }).detach();
    }

    /// Waits, at most for `limit`, until the file contains all lines queued before.
    void flush(std::chrono::milliseconds limit) {
        const std::uint64_t goal = m_queue.pushed();
        const auto deadline = std::chrono::steady_clock::now() + limit;
        m_queue.wake();
        while (m_written.load(std::memory_order_acquire) < goal &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

  private:
    void run() {
        ::pthread_setname_np(::pthread_self(), "log-file");
        LineBuffer batch;
        std::string text;
        for (;;) {
            m_queue.drain(batch);
            const std::size_t lines = batch.lines();
            const std::int64_t ahead = wallClockAheadNs();
            text.clear();
            for (; !batch.empty(); batch.pop()) {
                const LogLine line = batch.front();
                appendLine(text, m_clock.text(line.uptimeNs + ahead), std::to_string(line.level), line.text);
            }
            writeWhole(text, lines);
            m_written.fetch_add(lines, std::memory_order_release);
            if (lines == 0 && m_queue.prepareSleep()) {
                pollfd wait{m_queue.wakeDescriptor(), POLLIN, 0};
                ::poll(&wait, 1, -1);
                m_queue.finishSleep();
                // Lines come in bursts: a short wait joins many into one write.
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
    }

    void writeWhole(const std::string& text, std::size_t lines) {
        if (!text.empty() && m_size != 0 && m_size + text.size() > m_maxBytes) {
            beginAnew();
        }
        std::size_t done = 0;
        while (done < text.size()) {
            const auto put = ::write(m_file, text.data() + done, text.size() - done);
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put <= 0) {  // disk full: these lines are lost, later ones may fit
                m_dropped.add(lines);
                break;
            }
            done += static_cast<std::size_t>(put);
        }
        m_size += done;
    }

    void beginAnew() {
        const std::string kept = m_path + ".1";
        ::rename(m_path.c_str(), kept.c_str());
        const int fresh = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
        if (fresh >= 0) {
            ::close(m_file);
            m_file = fresh;
        }
        m_size = 0;  // also after a failed open: retry after m_maxBytes more
    }

    const std::string m_path;
    const std::uint64_t m_maxBytes;
    Counter& m_dropped = Status::counter("log.dropped.file");
    LineQueue m_queue{kMaxLines, kMaxBytes};
    std::atomic<std::uint64_t> m_written{0};

    // Used by the writer's thread alone.
    ClockText m_clock;
    int m_file;
    std::uint64_t m_size;
};

std::atomic<Writer*> g_writer{nullptr};

void flushAtExit() {
    if (Writer* const writer = g_writer.load(std::memory_order_acquire); writer != nullptr) {
        writer->flush(kFlushLimit);
    }
}

}  // namespace

bool LogFile::open(const std::string& path, std::uint64_t maxBytes) noexcept {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (file < 0) {
        std::fprintf(stderr, "The log file %s cannot be opened: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    try {
        struct stat info {};
        const bool known = ::fstat(file, &info) == 0 && S_ISREG(info.st_mode);
        // Never destroyed: its thread writes until the process ends.
        auto* const writer = new Writer(path, file, known ? static_cast<std::uint64_t>(info.st_size) : 0,
                                        known ? maxBytes : UINT64_MAX);
        writer->start();
        g_writer.store(writer, std::memory_order_release);
        std::atexit(flushAtExit);
        return true;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "The log file %s cannot be written: %s\n", path.c_str(), error.what());
        return false;
    }
}

void LogFile::write(std::string_view text, int level) noexcept {
    Writer* const writer = g_writer.load(std::memory_order_acquire);
    if (writer != nullptr &&
        !writer->queue().push(text, static_cast<std::uint8_t>(std::clamp(level, 0, 255)))) {
        writer->countDropped();
    }
}

}  // namespace kyo
