#pragma once
#include <chrono>
#include <functional>
#include <memory>

namespace kyo::orx {

/// One thread that does the work given to it in the order in which it is due, one piece at a time. It is made
/// with the first piece; should the system have no thread left, the next piece tries again.
///
/// Policy when full: beyond kLimit waiting pieces a new one is refused and counted in
/// "orx.callbacks.dropped".
class CallbackThread {
  public:
    static constexpr std::size_t kLimit = 1024;

    CallbackThread();
    /// As stop().
    ~CallbackThread();
    CallbackThread(const CallbackThread&) = delete;
    CallbackThread& operator=(const CallbackThread&) = delete;

    /// Never blocks on the work and never does it inside the call. Exceptions of the work are logged.
    /// False when it was refused.
    bool post(std::function<void()> work, std::chrono::milliseconds delay = {});

    /// Forgets what waits, and waits for the piece at work, but not longer than two seconds: a thread that
    /// hangs in a callback is left behind.
    void stop();

  private:
    struct State;
    static void run(State& state);

    const std::shared_ptr<State> m_state;  ///< shared with the thread, which may be left behind
};

}  // namespace kyo::orx
