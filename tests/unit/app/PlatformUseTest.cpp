// How logger and heartbeat use the platform, and what the log says about the counters.
#include <stdlib.h>
#include <unistd.h>

#include "app/CounterLog.h"
#include "app/VlmAraLogger.h"
#include "app/vlmHeartBeat.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;

// In a process of its own, since the platform's log can be started once.
TEST(AraLogger, GivesEachLevelItsSeverity) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const TemporaryFolder noDaemonHasItsPipeHere;
    EXPECT_EXIT(
        {
            ::setenv("DLT_PIPE_DIR", noDaemonHasItsPipeHere.path().c_str(), 1);
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            vlmProd::VlmAraLogger logger;
            for (int level = 0; level <= 9; ++level) {
                logger.logData("l" + std::to_string(level), level);
            }
            std::exit(0);
        },
        ExitedWithCode(0),
        "INFO +l0\n[^\n]+INFO +l1\n[^\n]+FATAL +l2\n[^\n]+ERROR +l3\n[^\n]+WARN +l4\n[^\n]+INFO "
        "+l5\n[^\n]+DEBUG +l6\n"
        "[^\n]+DEBUG +l7\n[^\n]+INFO +l8\n[^\n]+INFO +l9\n");
}

TEST(HeartBeat, LogsThatThereIsNoHealthManagement) {
    struct Unsupervised : vlmProd::vlmHeartBeat {
        Unsupervised() : vlmHeartBeat(Unconnected{}) {}
    };
    LogCapture log;
    Unsupervised().sendAliveSignal();
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 3);
    EXPECT_THAT(log.lines()[0].text,
                EndsWith("):56 IAmAlive called, the mSupervisionEntity has not been created"));
}

TEST(CounterLog, LogsWhatChangedAtMostOnceAMinute) {
    LogCapture log;
    auto& lost = kyo::Status::counter("test.dropped");
    vlmProd::CounterLog counters;
    const auto start = vlmProd::CounterLog::Clock::now();
    const auto logged = [&](std::chrono::seconds after) {
        log.clear();
        counters.check(start + after);
        return log.messages(5);
    };
    using std::chrono::seconds;
    lost.add(2);
    EXPECT_EQ(logged(seconds(0)), std::vector<std::string>{"Counters that changed: test.dropped 2 (+2)"});
    lost.add();
    EXPECT_TRUE(logged(seconds(59)).empty());
    EXPECT_EQ(logged(seconds(60)), std::vector<std::string>{"Counters that changed: test.dropped 3 (+1)"});
    kyo::Status::counter("log.lines").add();
    EXPECT_TRUE(logged(seconds(120)).empty()) << "nothing but the log itself went on";
}

}  // namespace
