#include "bus/OnEventGenerator.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "base/VlmLog.h"
#include "kyo/DateTime.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

using Clock = OnEventGenerator::Clock;

std::atomic<Clock::rep> lastTickCount{0};

}  // namespace

void OnEventGenerator::watchWallClock(Clock::time_point now) {
    using std::chrono::milliseconds;
    constexpr std::int64_t kUnknown = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t kJumpMs = 1000;  // a clock that is only corrected moves by milliseconds
    static std::atomic<std::int64_t> lastDistance{kUnknown};
    static auto& jumps = kyo::Status::counter("clock.jumps");
    const auto wall = static_cast<std::int64_t>(kyo::DateTime::getCurrentTimeMs());
    const std::int64_t distance =
        wall - std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count();
    const std::int64_t last = lastDistance.exchange(distance, std::memory_order_relaxed);
    if (last != kUnknown && std::abs(distance - last) > kJumpMs) {
        jumps.add();
        VLM_LOG(4, "The wall clock has jumped by " << (distance - last) << " ms");
    }
}

OnEventGenerator::OnEventGenerator(std::string& clockName)
    : m_publisher(std::make_shared<EventPublisher>()),
      m_timer(std::make_shared<Timer>()),
      m_clockName(clockName) {
    VLM_LOG(5, "ZEPH-43022: VLM implements a timer object");
}

OnEventGenerator::~OnEventGenerator() {
    stopTimer();
}

void OnEventGenerator::startOnEventGenerator() {
    VLM_TRACE(7);
    const auto interval = static_cast<int>(m_duration);
    watchWallClock(Clock::now());
    m_timer->setInterval(
        [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->generateOnEvent();
            }
        },
        interval);
    kyo::Status::gauge("clock.durationMs", [interval] { return kyo::Json::Value(interval); });
    kyo::Status::gauge("clock.nextTickMs", [timer = m_timer] {
        return kyo::Json::Value(static_cast<kyo::Json::Int64>(timer->millisecondsToNextTick()));
    });
}

OnEventGenerator::Clock::time_point OnEventGenerator::lastTick() {
    return Clock::time_point(Clock::duration(lastTickCount.load(std::memory_order_relaxed)));
}

void OnEventGenerator::generateOnEvent() {
    VLM_TRACE(7);
    const auto now = Clock::now();
    lastTickCount.store(now.time_since_epoch().count(), std::memory_order_relaxed);
    watchWallClock(now);
    Message message;
    message.setTopic(Message::OnEvent);
    m_publisher->publishMessage(message);
    static auto& ticks = kyo::Status::counter("clock.ticks");
    ticks.add();
}

void OnEventGenerator::stopTimer() {
    m_timer->stopTimer();
}

}  // namespace vlmProd
