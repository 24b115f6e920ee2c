#include "bus/Timer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
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
    // Without a descriptor the thread sleeps out its interval, and a stop waits that long for its end.
    Loop() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Loop() {
        if (wake >= 0) {
            ::close(wake);
        }
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void stop() {
        clear = true;
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake, &one, sizeof one);
    }
    /// Sleeps until the next tick or the stop. poll() has a relative time-out, so that setting the wall clock
    /// neither stretches nor cuts it.
    void sleep() {
        for (auto left = nextTick.load() - Clock::now(); left.count() > 0 && !clear;
             left = nextTick.load() - Clock::now()) {
            pollfd stopped{wake, POLLIN, 0};
            ::poll(&stopped, 1, static_cast<int>(std::chrono::ceil<milliseconds>(left).count()));
        }
    }

    const int wake;                  ///< readable after the stop
    std::atomic<bool> clear{false};  ///< true: stopped
    std::atomic<Clock::time_point> nextTick{Clock::time_point{}};
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
    if (!m_loop || m_loop->clear) {
        return 0;
    }
    const auto left = std::chrono::duration_cast<milliseconds>(m_loop->nextTick.load() - Clock::now());
    return std::max<std::int64_t>(left.count(), 0);
}

void Timer::tick(Loop& loop, const timerCallback& callback, int interval) {
    while (!loop.clear) {
        if (interval > 0) {
            loop.nextTick = Clock::now() + milliseconds(interval);
            loop.sleep();
        }
        if (loop.clear) {
            return;
        }
        callback();
    }
}

}  // namespace vlmProd
