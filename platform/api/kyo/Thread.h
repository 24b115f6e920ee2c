#pragma once
#include <atomic>
#include <mutex>
#include <thread>

namespace kyo {

/// A worker: start() makes one thread that executes run(). A second start() does nothing.
/// run() may detach() its own thread; that is safe against a start() that has not returned yet.
/// Destroying an object whose thread is neither joined nor detached detaches it.
class Thread {
  public:
    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();

    /// Starts the thread. When the system has no thread left this logs at level 3, and the next
    /// start() tries again.
    virtual void start();
    virtual void run() = 0;
    virtual void stop();
    virtual void exit();
    virtual void join();
    virtual void detach();

    bool started() const { return m_started.load(std::memory_order_relaxed); }

  private:
    std::atomic<bool> m_started{false};
    std::mutex m_guard;  ///< guards m_thread against start(), join() and detach() at once
    std::thread m_thread;
};

}  // namespace kyo
