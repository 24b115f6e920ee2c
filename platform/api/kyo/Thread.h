#pragma once
#include <atomic>
#include <mutex>
#include <thread>

namespace kyo {

/// A worker: start() creates one thread that executes run(). A second start() does nothing. run() may
/// detach() its own thread, even before start() has returned. The destructor detaches a thread that was not
/// joined.
class Thread {
  public:
    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();

    /// Starts the thread. When the system has no thread left, logs at level 3; the next start() retries.
    virtual void start();
    virtual void run() = 0;
    /// stop() and exit() do nothing unless a derived class overrides them.
    virtual void stop();
    virtual void exit();
    virtual void join();
    virtual void detach();

    bool started() const { return m_started.load(std::memory_order_relaxed); }

  private:
    std::atomic<bool> m_started{false};
    std::mutex m_guard;  ///< guards m_thread: start(), join() and detach() may run concurrently
    std::thread m_thread;
};

}  // namespace kyo
