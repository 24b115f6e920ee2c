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

    /// What a descriptor is watched for. A further call replaces it.
    enum class Until : std::uint8_t { Readable, Writable };
    void watch(int fd, Until until = Until::Readable) const noexcept;
    void unwatch(int fd) const noexcept;
    /// Ends wait(), now or next time. Any thread.
    void wake() const noexcept { m_wakeUp.wake(); }

    struct Ready {
        bool woken = false;
        std::span<const int>
            descriptors;  ///< readable or writable, as they are watched; valid until the next call
    };
    /// Blocks until a descriptor is ready, until wake(), or until that time; at most a minute.
    Ready wait(Clock::time_point until);

  private:
    static constexpr std::size_t kMost = 16;  // the others come with the next call

    const kyo::WakeFd m_wakeUp;
    const int m_epoll;
    std::array<int, kMost> m_ready{};
};

}  // namespace someip
