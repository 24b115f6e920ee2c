#pragma once
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace kyo::orx {

/// One thread that executes posted work, one piece at a time, in the order of its due time. post() creates
/// the thread with the first piece, and retries with the next one when the system has no thread left.
///
/// When kLimit pieces are waiting, post() drops a new one and counts it in "orx.callbacks.dropped".
class CallbackThread {
  public:
    static constexpr std::size_t kLimit = 1024;

    CallbackThread();
    /// As stop().
    ~CallbackThread();
    CallbackThread(const CallbackThread&) = delete;
    CallbackThread& operator=(const CallbackThread&) = delete;

    /// Does not block and never executes `work` inside the call. Exceptions of the work are logged. Returns
    /// false when the work was dropped.
    bool post(std::function<void()> work, std::chrono::milliseconds delay = {});
    /// The same beyond the limit, for what nobody would try again. A caller has few such pieces waiting.
    /// Dropped only after stop().
    void postDuty(std::function<void()> work, std::chrono::milliseconds delay = {});

    /// Drops the waiting work, uncounted, and waits up to two seconds for the running piece. A thread that
    /// hangs in a callback is left running.
    void stop();

  private:
    struct State;
    bool put(std::function<void()> work, std::chrono::milliseconds delay, std::size_t limit);
    static void run(State& state);

    const std::shared_ptr<State> m_state;  ///< shared with the thread, which may outlive this object
};

}  // namespace kyo::orx
