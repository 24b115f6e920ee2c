#pragma once
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kyo {

/// A descriptor that wakes a thread from poll() or epoll_wait(). A wake-up before the sleep is not lost.
class WakeFd {
  public:
    /// Throws std::system_error when the system has no descriptor left.
    WakeFd() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (m_fd < 0) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~WakeFd() { ::close(m_fd); }
    WakeFd(const WakeFd&) = delete;
    WakeFd& operator=(const WakeFd&) = delete;

    /// Readable from wake() to reset().
    int get() const noexcept { return m_fd; }
    /// Any thread; async-signal-safe.
    void wake() const noexcept { ::eventfd_write(m_fd, 1); }
    /// To be called by the thread that was woken, before it checks what there is to do.
    void reset() const noexcept {
        eventfd_t count = 0;
        ::eventfd_read(m_fd, &count);
    }

  private:
    const int m_fd;
};

}  // namespace kyo
