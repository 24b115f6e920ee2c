#pragma once
#include <chrono>
#include <memory>
#include <string>

#include "bus/Publisher.h"
#include "bus/Timer.h"

namespace vlmProd {

/// A clock: publishes an on-event message on the bus after every duration. Create it with std::make_shared.
/// The timer's thread shares it only while it publishes, so releasing it ends the clock.
class OnEventGenerator : public std::enable_shared_from_this<OnEventGenerator> {
  public:
    using Clock = std::chrono::steady_clock;

    explicit OnEventGenerator(std::string& clockName);
    ~OnEventGenerator();
    OnEventGenerator(const OnEventGenerator&) = delete;
    OnEventGenerator& operator=(const OnEventGenerator&) = delete;

    /// In milliseconds. Set before startOnEventGenerator().
    void setDuration(long long duration) { m_duration = duration; }
    /// Starts the clock. The duration is narrowed to int.
    void startOnEventGenerator();
    /// Publishes one on-event message.
    void generateOnEvent();
    /// When the last message of any clock was published; the epoch: never. Any thread.
    static Clock::time_point lastTick();
    void stopTimer();

    const std::string& getClockName() const { return m_clockName; }

  private:
    /// Counts a jump of the wall clock since the last call: its distance from the steady one has changed.
    static void watchWallClock(Clock::time_point now);

    const std::shared_ptr<EventPublisher> m_publisher;
    const std::shared_ptr<Timer> m_timer;
    const std::string m_clockName;
    long long m_duration = 0;
};

}  // namespace vlmProd
