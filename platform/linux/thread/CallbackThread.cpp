#include "thread/CallbackThread.h"

#include <condition_variable>
#include <exception>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr std::chrono::seconds kStopLimit{2};

}  // namespace

struct CallbackThread::State {
    std::mutex mutex;
    std::condition_variable changed;
    // All guarded by the mutex. Work with the same due time keeps its order.
    std::multimap<SteadyClock::time_point, std::function<void()>> waiting;
    bool running = false;
    bool stopping = false;
};

CallbackThread::CallbackThread() : m_state(std::make_shared<State>()) {}

CallbackThread::~CallbackThread() {
    stop();
}

bool CallbackThread::post(std::function<void()> work, std::chrono::milliseconds delay) {
    return put(std::move(work), delay, kLimit);
}

void CallbackThread::postDuty(std::function<void()> work, std::chrono::milliseconds delay) {
    put(std::move(work), delay, std::numeric_limits<std::size_t>::max());
}

bool CallbackThread::put(std::function<void()> work, std::chrono::milliseconds delay, std::size_t limit) {
    static Counter& dropped = Status::counter("orx.callbacks.dropped");
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    if (m_state->stopping) {
        return false;
    }
    if (m_state->waiting.size() >= limit) {
        dropped.add();
        return false;
    }
    m_state->waiting.emplace(SteadyClock::now() + delay, std::move(work));
    if (!m_state->running) {
        try {
            std::thread([state = m_state] { run(*state); }).detach();
            m_state->running = true;
        } catch (const std::system_error& error) {
            KYO_LOG(3, "No thread for callbacks could be started: " << error.what());
        }
    }
    m_state->changed.notify_all();
    return true;
}

void CallbackThread::stop() {
    std::multimap<SteadyClock::time_point, std::function<void()>> forgotten;
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->stopping = true;
    forgotten.swap(m_state->waiting);
    m_state->changed.notify_all();
    m_state->changed.wait_until(lock, SteadyClock::now() + kStopLimit, [this] { return !m_state->running; });
}

void CallbackThread::run(State& state) {
    std::unique_lock<std::mutex> lock(state.mutex);
    while (!state.stopping) {
        if (state.waiting.empty()) {
            state.changed.wait(lock);
            continue;
        }
        const auto next = state.waiting.begin();
        if (next->first > SteadyClock::now()) {
            const SteadyClock::time_point due = next->first;
            state.changed.wait_until(lock, due);
            continue;
        }
        std::function<void()> work = std::move(next->second);
        state.waiting.erase(next);
        lock.unlock();
        try {
            work();
        } catch (const std::exception& error) {
            KYO_LOG(3, "A callback failed: " << error.what());
        }
        work = nullptr;
        lock.lock();
    }
    state.running = false;
    state.changed.notify_all();
}

}  // namespace kyo::orx
