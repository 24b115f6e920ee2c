#include <csignal>

#include "bus/EventControl.h"
#include "bus/PubSubService.h"
#include "bus/Timer.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;
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

TEST(Timer, KeepsItsIntervalWhileSignalsArrive) {
    const auto before = ::signal(SIGUSR1, [](int) {});
    const auto ticked = std::make_shared<std::atomic<bool>>(false);
    Timer timer;
    const auto begin = Clock::now();
    timer.setInterval([ticked] { *ticked = true; }, 300);
    sigset_t signal;
    ::sigemptyset(&signal);
    ::sigaddset(&signal, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &signal, nullptr);  // so that the timer's thread takes it
    EXPECT_TRUE(eventually([&] { return ticked->load(); }, [] { ::kill(::getpid(), SIGUSR1); }));
    EXPECT_GE(Clock::now() - begin, 300ms);
    timer.stopTimer();
    ::pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
    ::signal(SIGUSR1, before);
}

std::ptrdiff_t threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// The objects of a tick are released only when the timer's thread has ended: then no tick can follow.
TEST(Timer, LeavesNoThreadsAsleepAndMakesNoTickWhenItIsStoppedOrReplaced) {
    const auto ticks = std::make_shared<std::atomic<int>>(0);
    const auto before = threadCount();
    for (int round = 0; round < 100; ++round) {
        Timer timer;
        timer.setInterval([ticks] { ++*ticks; }, 3'600'000);
        timer.setInterval([ticks] { ++*ticks; }, 3'600'000);
        timer.stopTimer();
        // Destroys the timer before its threads end.
    }
    EXPECT_TRUE(eventually([&] { return ticks.use_count() == 1; }));
    EXPECT_TRUE(eventually([&] { return threadCount() <= before; }));
    EXPECT_EQ(*ticks, 0);
}

TEST(Timer, IsReplacedByASecondSettingEvenDuringATick) {
    struct Tick {
        std::atomic<bool> begun{false};
        std::atomic<bool> release{false};
    };
    const auto first = std::make_shared<Tick>();
    const auto second = std::make_shared<std::atomic<int>>(0);
    Timer timer;
    timer.setInterval(
        [first] {
            first->begun = true;
            eventually([&first] { return first->release.load(); });
        },
        1);
    ASSERT_TRUE(eventually([&] { return first->begun.load(); }));
    timer.setInterval([second] { ++*second; }, 1);
    EXPECT_TRUE(eventually([&] { return *second > 3; })) << "the second loop does not wait for the first";
    EXPECT_GT(first.use_count(), 1) << "what the tick uses is still there";
    first->release = true;
    EXPECT_TRUE(eventually([&] { return first.use_count() == 1; })) << "the first loop ends after its tick";
    timer.stopTimer();
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
        // A running tick of the first clock may still arrive; no more after that.
        auto settled = ticks.value();
        EXPECT_TRUE(eventually([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return std::exchange(settled, ticks.value()) == ticks.value();
        }));
    }
    EXPECT_EQ(kyo::Status::snapshot()["clock"]["nextTickMs"].asInt64(), 0) << "stopped with its owner";
    // The ticks are on the bus: drain them here, unless another test has started the bus thread.
    PubSubService::getInstance().drainOnce();
    EXPECT_TRUE(log.waitFor("Read from PubSubService Q", 3));
}

}  // namespace
