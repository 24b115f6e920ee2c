#pragma once
#include <mutex>

namespace kyo {

/// A non-recursive lock; satisfies the standard's Lockable.
class Mutex {
  public:
    void lock() { m_native.lock(); }
    void unlock() { m_native.unlock(); }
    bool try_lock() { return m_native.try_lock(); }
    bool tryLock() { return m_native.try_lock(); }

  private:
    friend class ThreadCondition;
    std::mutex m_native;
};

}  // namespace kyo
