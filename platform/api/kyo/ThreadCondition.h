#pragma once
#include <chrono>
#include <condition_variable>

#include "kyo/Mutex.h"

namespace kyo {

/// Lets threads sleep until another wakes them. It has no memory: a broadcast without a waiter is lost. Must
/// not be destroyed while a thread waits on it.
class ThreadCondition {
  public:
    /// Waits for a wake-up. The caller has locked `held`; it is locked again on return.
    void wait(Mutex& held) {
        std::unique_lock<std::mutex> lock(held.m_native, std::adopt_lock);
        m_native.wait(lock);
        lock.release();
    }
    /// As wait(), but at most for `limit` on the steady clock. Returns false on a time-out.
    bool waitFor(Mutex& held, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(held.m_native, std::adopt_lock);
        const bool woken =
            m_native.wait_until(lock, std::chrono::steady_clock::now() + limit) == std::cv_status::no_timeout;
        lock.release();
        return woken;
    }
    void broadcast() { m_native.notify_all(); }
    void signal() { m_native.notify_one(); }

  private:
    std::condition_variable m_native;
};

}  // namespace kyo
