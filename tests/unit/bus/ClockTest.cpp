#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "bus/EventControl.h"
#include "bus/PubSubService.h"
#include "bus/Timer.h"
#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using vlmTest::eventually;
using vlmTest::LogCapture;
using Clock = std::chrono::steady_clock;

TEST(Timer, TicksOneIntervalAfterTheOtherAndDoesNotPauseWithNone) {
    const auto ticks = std::make_shared<std::atomic<int>>(0);
    Timer timer;
    const auto begin = Clock::now();
    timer.setInterval([ticks] { ++*ticks; }, 30);
    ASSERT_TRUE(eventually([&] { return *ticks >= 3; }));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(90))
        << "the first tick comes one interval after";
    timer.setInterval([ticks] { ++*ticks; }, -5);
    EXPECT_TRUE(eventually([&] { return *ticks > 1000; }));
    timer.stopTimer();
}

/// Something that a tick uses; says when nobody holds it any more.
struct Watched {
    explicit Watched(std::atomic<bool>& flag) : gone(flag) {}
    ~Watched() { gone = true; }
    std::atomic<bool>& gone;
    std::atomic<int> ticks{0};
};

// The callback's object can only be gone once the timer's thread has ended: then no tick can follow.
TEST(Timer, EndsWithoutATickWhenItIsStoppedInItsSleep) {
    static std::atomic<bool> gone{false};
    static std::atomic<int> ticks{0};
    gone = false;
    ticks = 0;
    {
        auto watched = std::make_shared<Watched>(gone);
        Timer timer;
        timer.setInterval([watched] { ++ticks; }, 50);
        watched.reset();
        timer.stopTimer();
        // The timer itself goes first; its thread must not mind.
    }
    EXPECT_TRUE(eventually([] { return gone.load(); }));
    EXPECT_EQ(ticks, 0);
}

TEST(Timer, IsReplacedByASecondSettingEvenDuringATick) {
    static std::atomic<bool> gone{false};
    static std::atomic<bool> ticking{false};
    static std::atomic<bool> release{false};
    gone = ticking = release = false;
    const auto second = std::make_shared<std::atomic<int>>(0);
    auto timer = std::make_shared<Timer>();
    timer->setInterval(
        [watched = std::make_shared<Watched>(gone)] {
            ticking = true;
            eventually([] { return release.load(); });
            ++watched->ticks;  // must still be there
        },
        1);
    ASSERT_TRUE(eventually([] { return ticking.load(); }));
    timer->setInterval([second] { ++*second; }, 1);
    EXPECT_TRUE(eventually([&] { return *second > 3; })) << "the second loop does not wait for the first";
    EXPECT_FALSE(gone);
    release = true;
    EXPECT_TRUE(eventually([] { return gone.load(); })) << "the first loop ends after its tick";
    timer->stopTimer();
}

TEST(EventControl, PublishesTicksUntilItsClockIsReplaced) {
    LogCapture log;
    auto& ticks = kyo::Status::counter("clock.ticks");
    const auto before = ticks.value();
    {
        EventControl control;
        control.initializeOnEventGenerator("fast", 1);
        ASSERT_TRUE(eventually([&] { return ticks.value() >= before + 3; }));
        control.initializeOnEventGenerator("slow", (1LL << 32) + 3'600'000);
        const auto status = kyo::Status::snapshot();
        EXPECT_EQ(status["clock"]["durationMs"].asInt(), 3'600'000) << "narrowed to the range of int";
        EXPECT_GT(status["clock"]["nextTickMs"].asInt64(), 3'500'000);
        // A tick of the first clock that was under way may still come; then there are no more.
        auto settled = ticks.value();
        EXPECT_TRUE(eventually([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return std::exchange(settled, ticks.value()) == ticks.value();
        }));
    }
    EXPECT_EQ(kyo::Status::snapshot()["clock"]["nextTickMs"].asInt64(), 0) << "stopped with its owner";
    // The ticks are on the bus: taken out here, or by its thread if another test has started that.
    PubSubService::getInstance().drainOnce();
    EXPECT_TRUE(log.waitFor("Read from PubSubService Q", 3));
}

}  // namespace
}  // namespace vlmProd
