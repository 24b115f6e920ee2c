#include "app/CounterLog.h"

#include "tests/support/Test.h"

using namespace vlmTest;
using vlmProd::CounterLog;

TEST(CounterLog, LogsWhatChangedAtMostOnceAMinute) {
    LogCapture log;
    auto& lost = kyo::Status::counter("test.dropped");
    CounterLog counters;
    const auto start = CounterLog::Clock::now();
    const auto told = [&](std::chrono::seconds after) {
        log.clear();
        counters.look(start + after);
        return log.messages(5);
    };
    using std::chrono::seconds;
    lost.add(2);
    EXPECT_EQ(told(seconds(0)), std::vector<std::string>{"Counters that changed: test.dropped 2 (+2)"});
    lost.add();
    EXPECT_TRUE(told(seconds(59)).empty());
    EXPECT_EQ(told(seconds(60)), std::vector<std::string>{"Counters that changed: test.dropped 3 (+1)"});
    kyo::Status::counter("log.lines").add();
    EXPECT_TRUE(told(seconds(120)).empty()) << "nothing but the log itself went on";
}
