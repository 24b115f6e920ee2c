#include "bus/Timer.h"

#include <pthread.h>

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

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

}  // namespace

/// What a timer shares with the thread of one setting.
struct Timer::Loop {
    Loop() {
        // libfaketime does not know the call with which std::condition_variable waits on the steady clock.
        pthread_condattr_t attributes;
        ::pthread_condattr_init(&attributes);
        ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        ::pthread_cond_init(&stopped, &attributes);
        ::pthread_condattr_destroy(&attributes);
    }
    ~Loop() { ::pthread_cond_destroy(&stopped); }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void stop() {
        const std::lock_guard<std::mutex> lock(mutex);
        clear = true;
        ::pthread_cond_broadcast(&stopped);
    }
    /// Sleeps until the next tick or the stop. The caller holds the mutex.
    void sleep() {
        const auto due = nextTick.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(due);
        const timespec at{seconds.count(), std::chrono::nanoseconds(due - seconds).count()};
        while (!clear && ::pthread_cond_timedwait(&stopped, mutex.native_handle(), &at) != ETIMEDOUT) {
        }
    }

    std::mutex mutex;  ///< guards the members below
    pthread_cond_t stopped{};
    bool clear = false;  ///< true: stopped
    Clock::time_point nextTick;
};

void Timer::setInterval(timerCallback callback, int interval) {
    VLM_TRACE(7);
    auto loop = std::make_shared<Loop>();
    loop->nextTick = Clock::now() + milliseconds(std::max(interval, 0));
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
    if (!m_loop) {
        return 0;
    }
    const std::lock_guard<std::mutex> loopLock(m_loop->mutex);
    const auto left = std::chrono::duration_cast<milliseconds>(m_loop->nextTick - Clock::now());
    return m_loop->clear ? 0 : std::max<std::int64_t>(left.count(), 0);
}

void Timer::tick(Loop& loop, const timerCallback& callback, int interval) {
    std::unique_lock<std::mutex> lock(loop.mutex);
    while (!loop.clear) {
        if (interval > 0) {
            loop.nextTick = Clock::now() + milliseconds(interval);
            loop.sleep();
        }
        if (loop.clear) {
            return;
        }
        lock.unlock();
        callback();
        lock.lock();
    }
}

}  // namespace vlmProd
