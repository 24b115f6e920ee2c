#pragma once
#include <pthread.h>

#include <csignal>

namespace kyo {

/// Blocks all signals on this thread while the object lives. A thread that is created meanwhile keeps them
/// blocked: the application's own threads handle signals.
class SignalsBlocked {
  public:
    SignalsBlocked() noexcept {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t m_before{};
};

}  // namespace kyo
