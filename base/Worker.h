#pragma once
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "kyo/Mutex.h"
#include "kyo/Thread.h"
#include "kyo/ThreadCondition.h"

namespace vlmProd {

/// The part that the stages of the process share: a thread that empties a queue, sleeps, and can be woken and
/// stopped. Each stage has its own loop, run(), as the loops check the stop flag at different points.
///
/// The sleep has neither predicate nor time-out: a wake-up between the last check of the queue and the sleep
/// is lost, and the queued value waits for the next one.
class Worker : public kyo::Thread {
  public:
    /// Empties the queue, as run() does between two sleeps. Returns false when the stop flag ends the loop.
    virtual bool drainOnce() = 0;
    bool isRunning() const { return m_state == State::Running; }

  protected:
    using SleepLock = std::lock_guard<kyo::Mutex>;

    /// Lives as long as the loop. Its destructor is the thread's last access to the worker.
    class Running {
      public:
        explicit Running(Worker& worker) : m_worker(worker) { m_worker.m_state = State::Running; }
        ~Running() { m_worker.m_state = State::Ended; }

      private:
        Worker& m_worker;
    };

    /// The thread holds this lock from its log line to its sleep, so that a wake-up with the lock is not lost
    /// in between.
    SleepLock lockSleep() { return SleepLock(m_sleepMutex); }
    /// The caller holds lockSleep().
    void sleepUntilWoken() { m_wakeUp.wait(m_sleepMutex); }
    /// Wakes the thread. Any thread may call it, with or without the lock.
    void broadcast() { m_wakeUp.broadcast(); }
    /// Wakes the thread, with the lock.
    void wake() {
        const SleepLock lock = lockSleep();
        broadcast();
    }
    /// Wakes the thread until it ends, for at most 5 s; the caller has set the stop flag. Returns false when
    /// the thread still runs: the worker must not be destroyed then.
    bool waitForEnd() {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (started() && m_state != State::Ended) {
            if (std::chrono::steady_clock::now() > limit) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            wake();
        }
        return true;
    }

    std::atomic<bool> m_stop{false};

  private:
    enum class State { New, Running, Ended };

    kyo::Mutex m_sleepMutex;
    kyo::ThreadCondition m_wakeUp;
    std::atomic<State> m_state{State::New};
};

}  // namespace vlmProd
