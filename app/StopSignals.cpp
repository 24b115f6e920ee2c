#include "app/StopSignals.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/VlmLog.h"

namespace {

constexpr char kHandlerSignature[] = "void signal_handler(int32_t)";
constexpr char kHandlerText[] = "SIGNAL HANDLER HAPPENED= ";

std::atomic<bool> g_exitRequested{false};
/// True on the main thread while it sleeps with the signals unblocked and holds no lock.
thread_local std::atomic<bool> t_isWaiting{false};

/// Neither locks nor allocates.
void writeHandlerLine(std::int32_t number) {
    char line[96];
    std::size_t length = 0;
    const auto append = [&](const char* text, std::size_t size) {
        std::memcpy(line + length, text, size);
        length += size;
    };
    append(kHandlerSignature, sizeof kHandlerSignature - 1);
    append(" ", 1);
    append(kHandlerText, sizeof kHandlerText - 1);
    length =
        static_cast<std::size_t>(std::to_chars(line + length, line + sizeof line - 1, number).ptr - line);
    append("\n", 1);
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line, length);
}

void setOfStopSignals(sigset_t& set) {
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGABRT);
}

}  // namespace

void signal_handler(std::int32_t number) {
    const int before = errno;  // the interrupted code may be about to read it
    // False while the line is logged: an abort that interrupts this must not use the log.
    if (t_isWaiting.exchange(false, std::memory_order_relaxed)) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        VLM_LOG_PLAIN_AS(5, kHandlerSignature, kHandlerText << number);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        t_isWaiting.store(true, std::memory_order_relaxed);
    } else {
        writeHandlerLine(number);
    }
    if (number == SIGINT || number == SIGABRT || number == SIGTERM || number == SIGKILL) {
        g_exitRequested.store(true, std::memory_order_seq_cst);
    }
    errno = before;
}

namespace vlmProd {

void blockStopSignals() {
    sigset_t set;
    setOfStopSignals(set);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = signal_handler;
    action.sa_flags = SA_RESTART;
    setOfStopSignals(action.sa_mask);  // one signal at a time, also with the wait's mask
    for (const int number : {SIGINT, SIGTERM, SIGABRT, SIGKILL}) {
        ::sigaction(number, &action, nullptr);
    }
}

bool exitRequested() {
    return g_exitRequested.load(std::memory_order_seq_cst);
}

void waitForStopSignal(std::chrono::seconds limit) {
    sigset_t open;
    pthread_sigmask(SIG_SETMASK, nullptr, &open);
    sigdelset(&open, SIGINT);
    sigdelset(&open, SIGTERM);
    sigdelset(&open, SIGABRT);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!exitRequested()) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::nanoseconds::zero()) {
            break;
        }
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        timespec timeout{};
        timeout.tv_sec = seconds.count();
        timeout.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
        t_isWaiting.store(true, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        ::ppoll(nullptr, 0, &timeout, &open);  // other signals only wake it
        std::atomic_signal_fence(std::memory_order_seq_cst);
        t_isWaiting.store(false, std::memory_order_relaxed);
    }
}

}  // namespace vlmProd
