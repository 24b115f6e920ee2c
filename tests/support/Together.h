#pragma once
/// Concurrent threads that start at the same moment.
#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

namespace vlmTest {

class Together {
  public:
    /// Calls `step(0)` to `step(count - 1)`, each on a thread of its own.
    template <typename Step>
    Together(int count, Step step) : m_running(count), m_start(count) {
        for (int i = 0; i < count; ++i) {
            m_threads.emplace_back([this, step, i] {
                m_start.arrive_and_wait();
                step(i);
                --m_running;
            });
        }
    }
    ~Together() { join(); }
    Together(const Together&) = delete;
    Together& operator=(const Together&) = delete;

    /// True until all steps have ended.
    bool running() const { return m_running > 0; }
    void join() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
    }

  private:
    std::atomic<int> m_running;
    std::barrier<> m_start;
    std::vector<std::thread> m_threads;
};

}  // namespace vlmTest
