#include "bus/Timer.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

std::int64_t steadyMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// nanosleep() uses the monotonic clock: setting the wall clock does not affect it.
void sleepMs(int milliseconds) {
    timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

}  // namespace

void Timer::setInterval(timerCallback callback, int interval) {
    VLM_TRACE(7);
    auto loop = std::make_shared<Loop>();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_loop) {
            m_loop->clear = true;
        }
        m_loop = loop;
    }
    loop->nextTickMs = steadyMs() + std::max(interval, 0);
    try {
        startDetached([loop, callback = std::move(callback), interval] { tick(loop, callback, interval); });
    } catch (const std::system_error& error) {
        loop->clear = true;
        static auto& failed = kyo::Status::counter("threads.failed");
        failed.add();
        VLM_LOG(3, "No thread for the timer, it does not tick: " << error.what());
    }
}

void Timer::stopTimer() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_loop) {
        m_loop->clear = true;
    }
}

std::int64_t Timer::millisecondsToNextTick() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_loop || m_loop->clear) {
        return 0;
    }
    return std::max<std::int64_t>(m_loop->nextTickMs - steadyMs(), 0);
}

void Timer::tick(const std::shared_ptr<Loop>& loop, const timerCallback& callback, int interval) {
    while (!loop->clear) {
        if (interval > 0) {
            loop->nextTickMs = steadyMs() + interval;
            sleepMs(interval);
        }
        if (loop->clear) {
            return;
        }
        callback();
    }
}

}  // namespace vlmProd
