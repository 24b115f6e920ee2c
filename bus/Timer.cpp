#include "bus/Timer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "kyo/Mutex.h"
#include "kyo/Status.h"
#include "kyo/ThreadCondition.h"

namespace vlmProd {

namespace {

std::int64_t steadyMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

/// What a timer shares with the thread of one setting.
struct Timer::Loop {
    void stop() {
        const std::lock_guard<kyo::Mutex> lock(mutex);
        clear = true;
        stopped.broadcast();
    }
    /// Sleeps until the next tick or the stop.
    void sleep() {
        const std::lock_guard<kyo::Mutex> lock(mutex);
        for (std::int64_t left = nextTickMs - steadyMs(); left > 0 && !clear;
             left = nextTickMs - steadyMs()) {
            stopped.waitFor(mutex, std::chrono::milliseconds(left));
        }
    }

    kyo::Mutex mutex;  ///< between the check of `clear` and the sleep no stop is missed
    kyo::ThreadCondition stopped;
    std::atomic<bool> clear{false};           ///< true: stopped; set with the lock
    std::atomic<std::int64_t> nextTickMs{0};  ///< on the steady clock
};

void Timer::setInterval(timerCallback callback, int interval) {
    VLM_TRACE(7);
    auto loop = std::make_shared<Loop>();
    loop->nextTickMs = steadyMs() + std::max(interval, 0);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_loop) {
            m_loop->stop();
        }
        m_loop = loop;
    }
    try {
        startDetached([loop, callback = std::move(callback), interval] { tick(*loop, callback, interval); });
    } catch (const std::system_error& error) {
        loop->stop();
        static auto& failed = kyo::Status::counter("threads.failed");
        failed.add();
        VLM_LOG(3, "No thread for the timer, it does not tick: " << error.what());
    }
}

void Timer::stopTimer() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_loop) {
        m_loop->stop();
    }
}

std::int64_t Timer::millisecondsToNextTick() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_loop || m_loop->clear) {
        return 0;
    }
    return std::max<std::int64_t>(m_loop->nextTickMs - steadyMs(), 0);
}

void Timer::tick(Loop& loop, const timerCallback& callback, int interval) {
    while (!loop.clear) {
        if (interval > 0) {
            loop.nextTickMs = steadyMs() + interval;
            loop.sleep();
        }
        if (loop.clear) {
            return;
        }
        callback();
    }
}

}  // namespace vlmProd
