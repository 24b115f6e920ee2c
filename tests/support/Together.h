#pragma once
/// Concurrent threads that start at the same moment.
#include <barrier>
#include <thread>
#include <vector>

namespace vlmTest {

class Together {
  public:
    /// Calls `step(0)` to `step(count - 1)`, each on a thread of its own.
    template <typename Step>
    Together(int count, Step step) : m_start(count) {
        for (int i = 0; i < count; ++i) {
            m_threads.emplace_back([this, step, i] {
                m_start.arrive_and_wait();
                step(i);
            });
        }
    }
    /// As the destructor does.
    void join() { m_threads.clear(); }

  private:
    std::barrier<> m_start;
    std::vector<std::jthread> m_threads;
};

}  // namespace vlmTest
