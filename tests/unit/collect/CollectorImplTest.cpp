#include "collect/CollectorImpl.h"

#include "kyo/DateTime.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

/// A record as a resource completes it.
Value recordAt(long long timestamp, int value = 0) {
    Value record = valueOf(
        R"({"collectorName":"position","index":1,"resName":"positions","serviceName":"GNSSProxy","type":1})");
    record["timestamp"] = static_cast<kyo::Json::Int64>(timestamp);
    record["speed2D"] = value;
    return record;
}

Value valueOf(const SignalCollection& collection) {
    Value value = vlmTest::valueOf(collection.text);
    EXPECT_EQ(value["collectName"].asString(), collection.collectName) << "reports choose by it";
    return value;
}

std::vector<std::string> timestampsIn(const Value& collection) {
    std::vector<std::string> stamps;
    for (const auto& sample : collection["samples"]) {
        stamps.push_back(sample["timestamp"].asString());
    }
    return stamps;
}

struct CollectorImplTest : Test {
    static void insert(CollectorImpl& collector, Value record) { collector.insertRecord(record); }

    static CollectorImpl make(long long history) {
        return CollectorImpl("position", history, "GNSS", "positions", 2, "minute",
                             CollectorOnEventType::Compare);
    }
};

TEST_F(CollectorImplTest, TrimsWhatWaitsToTheHistoryWhenTheTickEnds) {
    const std::tuple<long long, std::vector<long long>, std::vector<std::string>> cases[] = {
        {100, {0, 50, 200}, {"200"}},                 // both are too far from the newest
        {100, {0, 50, 100}, {"0", "50", "100"}},      // exactly the history: kept
        {100, {500, 300, 10}, {"500", "300", "10"}},  // the order of arrival counts
        {0, {7, 7, 8, 8}, {"8"}},  // trimmed to one time stamp, then each clears the one before
        {100, {INT64_MIN, INT64_MAX}, {"-9223372036854775808", "9223372036854775807"}},  // wraps
    };
    for (const auto& [history, arrived, kept] : cases) {
        CollectorImpl collector = make(history);
        collector.moveToReportState();
        for (const auto t : arrived) {
            insert(collector, recordAt(t));
        }
        EXPECT_EQ(collector.inputWeight(), 24 * arrived.size()) << "in the Reportable state records wait";
        EXPECT_EQ(collector.outputWeight(), 0U);
        collector.moveToHistoryState();
        EXPECT_EQ(collector.inputWeight(), 0U);
        EXPECT_EQ(timestampsIn(valueOf(collector.buildCollection())), kept);
    }
}

TEST_F(CollectorImplTest, DescribesItselfWhenATickFindsNothing) {
    CollectorImpl collector = make(1000);
    EXPECT_EQ(collector.buildCollection().text,
              R"({"causeOfSubmit":0,"collectName":"position","endOfHistory":0,"historyLength":0,"index":2,)"
              R"("lagLength":0,"resourceName":"positions","samples":null,"serviceName":"GNSS"})");
    const auto before = kyo::DateTime::getCurrentTimeMs();
    collector.onOnEventCallback({});
    EXPECT_GE(valueOf(collector.buildCollection())["endOfHistory"].asUInt64(), before);
    EXPECT_LE(valueOf(collector.buildCollection())["endOfHistory"].asUInt64(),
              kyo::DateTime::getCurrentTimeMs());
}

TEST_F(CollectorImplTest, LogsWhatItRemovesWithTheDifferenceFrontMinusBackAndTestsBackMinusFront) {
    LogCapture log;
    CollectorImpl withoutHistory = make(0);
    insert(withoutHistory, recordAt(10));
    insert(withoutHistory, recordAt(20));
    EXPECT_EQ(log.count(5, "History duration is 0 for the Collector: position, clearing older records"), 2U);
    EXPECT_TRUE(log.has(5, "Removing data from output queue, jsonCopy:" + compactText(recordAt(10))));
    CollectorImpl collector = make(100);
    collector.moveToLagState();
    insert(collector, recordAt(0));
    EXPECT_EQ(collector.inputWeight(), 24U) << "records wait in this state too";
    insert(collector, recordAt(101));
    EXPECT_TRUE(log.has(5, "ZEPH-44489: Collector: position: In the Lag state"));
    EXPECT_TRUE(log.has(5, "Collector: position not in History state"));
    log.clear();
    collector.moveToHistoryState();
    EXPECT_TRUE(log.has(5, "Valid record(s): moving record from input queue to output queue"));
    EXPECT_TRUE(
        log.has(5, "Difference of frontRecord and backRecord timestamp for the Collector: position-101"));
    EXPECT_TRUE(log.has(5, "Difference is greater than history."));
    EXPECT_TRUE(log.has(5, "Removed expired record for the Collector: position"));
}

/// Holds `first` at a log line until `second` is done, or for as long as it can be waited for. Returns true
/// if `second` was done by then.
bool overtakes(const char* where, const std::function<void()>& first, const std::function<void()>& second) {
    struct Holding : kyo::ProductLogger {
        void logData(std::string message, kyo::LogLevel) override {
            if (message.find(line) != std::string::npos && !holding.exchange(true)) {
                overtaken = eventually([this] { return done.load(); }, [] {}, 300ms);
            }
        }
        std::string line;
        std::atomic<bool> holding{false}, done{false}, overtaken{false};
    };
    static Holding logger;  // the log keeps the address
    logger.line = where;
    logger.holding = logger.done = logger.overtaken = false;
    kyo::Log::setProductLogger(&logger);
    kyo::Log::setReportingLevel(5);
    std::thread held(first);
    EXPECT_TRUE(eventually([] { return logger.holding.load(); }));
    second();
    logger.done = true;
    held.join();
    kyo::Log::setReportingLevel(0);
    kyo::Log::setProductLogger(nullptr);
    return logger.overtaken;
}

// Two dispatch threads meet between putting and moving: the newer record must not trim the older one.
TEST_F(CollectorImplTest, PassesEveryRecordOnWhileNoTickIsUnderWay) {
    const auto expired = counted("records.expired");
    const auto replaced = counted("records.replaced");
    CollectorImpl collector = make(0);
    overtakes(
        "Record inserted to Input queue", [&] { insert(collector, recordAt(1)); },
        [&] { insert(collector, recordAt(2)); });
    EXPECT_EQ(counted("records.expired"), expired);
    EXPECT_EQ(counted("records.replaced"), replaced + 1) << "both have been in the output queue";
    EXPECT_THAT(timestampsIn(valueOf(collector.buildCollection())), ElementsAre("2"));
}

TEST_F(CollectorImplTest, LetsNoRecordInWhileATickTrims) {
    CollectorImpl collector = make(100);
    collector.moveToReportState();
    insert(collector, recordAt(1));
    EXPECT_FALSE(overtakes(
        "Front record", [&] { collector.moveToHistoryState(); }, [&] { insert(collector, recordAt(2)); }));
}

// Dispatch threads insert while a tick's thread drains and others change the state: every record ends in a
// collection or in a counter. (Time stamps far apart make the trimming remove records as well.)
TEST_F(CollectorImplTest, LosesNoRecordUncountedWhileTicksRaceInsertions) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 2000;
    const auto lost = [] {
        return counted("queue.collector.input.dropped") + counted("queue.collector.output.dropped") +
               counted("records.expired") + counted("records.replaced");
    };
    const auto lostBefore = lost();
    CollectorImpl collector = make(50);
    std::atomic<int> running{kThreads};
    Together dispatchers(kThreads, [&](int t) {
        for (int i = 0; i < kRecords; ++i) {
            insert(collector, recordAt(i * 10LL, t * kRecords + i));
        }
        --running;
    });
    std::multiset<int> reported;
    const auto tick = [&] {
        collector.moveToReportState();
        const Value collection = valueOf(collector.buildCollection());
        for (const auto& sample : collection["samples"]) {
            reported.insert(sample["propertyValuePairs"]["speed2D"].asInt());
        }
        collector.moveToHistoryState();
    };
    while (running > 0) {
        tick();
    }
    dispatchers.join();
    tick();
    tick();
    EXPECT_EQ(reported.size() + (lost() - lostBefore), static_cast<std::size_t>(kThreads * kRecords));
    EXPECT_EQ(reported.size(), std::set<int>(reported.begin(), reported.end()).size()) << "none twice";
    EXPECT_EQ(kyo::Status::snapshot()["records"]["waiting"].asInt64(), 0);
}

}  // namespace
