#include "someip/EventLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace someip {

EventLoop::EventLoop() : m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
    if (m_epoll < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll");
    }
    watch(m_wakeUp.get());
}

EventLoop::~EventLoop() {
    ::close(m_epoll);
}

void EventLoop::watch(int fd, Until until) const noexcept {
    epoll_event event{};
    event.events = until == Until::Writable ? EPOLLOUT : EPOLLIN;
    event.data.fd = fd;
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) != 0 && errno == EEXIST) {
        ::epoll_ctl(m_epoll, EPOLL_CTL_MOD, fd, &event);
    }
}

void EventLoop::unwatch(int fd) const noexcept {
    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::Ready EventLoop::wait(Clock::time_point until) {
    int timeout = -1;
    if (until != Clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, 60000));
    }
    std::array<epoll_event, kMost> events{};
    const int count = ::epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), timeout);
    Ready ready;
    std::size_t found = 0;
    for (int i = 0; i < count; ++i) {
        const int fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == m_wakeUp.get()) {
            m_wakeUp.reset();
            ready.woken = true;
        } else {
            m_ready[found++] = fd;
        }
    }
    ready.descriptors = {m_ready.data(), found};
    return ready;
}

}  // namespace someip
