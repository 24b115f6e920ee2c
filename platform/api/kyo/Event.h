#pragma once
#include "kyo/Mutex.h"
#include "kyo/ThreadCondition.h"

namespace kyo {

/// A flag that threads can wait for. It stays set until reset().
class Event {
  public:
    void set() {
        const std::lock_guard<Mutex> lock(m_mutex);
        m_set = true;
        m_condition.broadcast();
    }
    void reset() {
        const std::lock_guard<Mutex> lock(m_mutex);
        m_set = false;
    }
    void wait() {
        const std::lock_guard<Mutex> lock(m_mutex);
        while (!m_set) {
            m_condition.wait(m_mutex);
        }
    }

  private:
    Mutex m_mutex;
    ThreadCondition m_condition;
    bool m_set = false;  ///< guarded by m_mutex
};

}  // namespace kyo
