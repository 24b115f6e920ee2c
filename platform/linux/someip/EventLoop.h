#pragma once
#include <array>
#include <cstdint>
#include <span>

#include "kyo/WakeFd.h"
#include "someip/Segmentation.h"

namespace someip {

/// The descriptors and the time that one thread waits for.
class EventLoop {
  public:
    /// Throws std::system_error when the system has no descriptor left.
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    void watch(int fd) const noexcept;
    void unwatch(int fd) const noexcept;
    /// Ends wait(), now or next time. Any thread.
    void wake() const noexcept { m_wakeUp.wake(); }

    struct Ready {
        bool woken = false;
        std::span<const int> readable;  ///< valid until the next call
    };
    /// Blocks until a descriptor is readable, until wake(), or until that time; at most a minute.
    Ready wait(Clock::time_point until);

  private:
    static constexpr std::size_t kMost = 16;  // the others come with the next call

    const kyo::WakeFd m_wakeUp;
    const int m_epoll;
    std::array<int, kMost> m_readable{};
};

}  // namespace someip
