// From a sample's record to the shipping queue in one process, with the real threads of the ingress queue,
// the bus and report control. Without middleware and backend: the records come from resources, and the test
// takes the reports from the shipping queue.
#include <gmock/gmock.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "bus/PubSubService.h"
#include "bus/Publisher.h"
#include "collect/IngressQueue.h"
#include "config/ConfigResponseHandler.h"
#include "kyo/DateTime.h"
#include "kyo/Status.h"
#include "report/VlmDataSubmissionControl.h"
#include "report/VlmReportControl.h"
#include "services/Resource.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordValue.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestCatalog.h"
#include "tests/support/Together.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using testing::SizeIs;
using vlmTest::eventually;
using vlmTest::LogCapture;

/// A name as a Latin-1 file has it. It cannot be read back from the record's text; its records must arrive.
const std::string kLatin1 = "Gr\xF6\xDF\x65";

const char* const kConfiguration = R"({
    "CONFIG": [{"name": "bench", "version": "7"}],
    "CLOCK": [{"name": "minute", "duration": 60000}],
    "REPORT": [{"name": "trip", "application": "fleet", "from": ["Latin1", "latest"]},
               {"name": "idle", "application": "fleet", "from": ["silent"]}],
    "COLLECT": [
        {"name": "Latin1", "serv": "GNSS", "res": "positions", "index": 1, "history": 60000, "on": "minute"},
        {"name": "latest", "serv": "GNSS", "res": "positions", "index": 2, "on": "minute"},
        {"name": "silent", "serv": "GNSS", "res": "positionsQuality", "index": 1, "on": "minute"}]})";

Value recordOf(int type, int number) {
    Value record;
    record["timestamp"] = static_cast<kyo::Json::UInt64>(kyo::DateTime::getCurrentTimeMs());
    record["serviceName"] = "GNSSProxy";
    record["resName"] = "positions";
    record["type"] = type;
    record["number"] = number;
    return record;
}

std::uint64_t count(const char* name) {
    return kyo::Status::counter(name).value();
}

/// Empties the shipping queue and returns all reports so far, oldest first. Without a link a report that is
/// taken from the queue only appears in the log.
std::vector<Value> takeReports(LogCapture& log) {
    auto& shipping = *VlmDataSubmissionControl::getInstance();
    std::vector<Value> reports;
    while (shipping.waitingReports() > 0) {
        shipping.processReportFromQueue();
    }
    const std::string prefix = "Processing the shipping queue = ";
    for (const auto& message : log.messages(5)) {
        if (message.starts_with(prefix)) {
            reports.push_back(vlmTest::valueOf(message.substr(prefix.size())));
        }
    }
    return reports;
}

/// Sends a tick once the threads of bus and report control sleep for the `times`th time.
void tick(LogCapture& log, std::size_t times) {
    ASSERT_TRUE(log.waitFor("Going to wait mode in vlm pubsub service thread.", times));
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Report queue.", times));
    Message message;
    EventPublisher().publishMessage(message);
}

// Only once per process: the singletons keep the setup's objects.
TEST(Pipeline, BringsEveryRecordIntoTheReportsOfItsTick) {
    LogCapture log;
    vlmTest::haveCatalog();
    const vlmTest::TemporaryFolder folder;
    auto& setup = *ConfigResponseHandler::getInstance();
    ASSERT_TRUE(setup.createConfigParserFromFile(
        folder.write("collector.json", std::regex_replace(kConfiguration, std::regex("Latin1"), kLatin1))));
    setup.startIngressQueue();
    setup.createCollectorObjects();
    PubSubService::getInstance().start();

    Resource positions("positions");
    positions.setSomeIPKey("type");
    positions.setCollectorName("GNSSProxy", "positions", 1, kLatin1);
    positions.setCollectorName("GNSSProxy", "positions", 2, "latest");

    // Three middleware threads deliver at once; type 3 belongs to no collector.
    constexpr int kThreads = 3;
    constexpr int kRecords = 100;
    vlmTest::Together(kThreads, [&](int t) {
        for (int i = 0; i < kRecords; ++i) {
            positions.processData(recordOf(1, t * kRecords + i));
        }
        positions.processData(recordOf(2, t));
        positions.processData(recordOf(3, t));
    }).join();
    // A record is dropped and counted when a preempted thread holds the lock during all ten tries.
    const auto lost = [] {
        return count("queue.ingress.dropped") + count("queue.collector.input.dropped") +
               count("queue.collector.output.dropped");
    };
    const auto accounted = [&] {
        return count("records.collected") + count("records.expired") + count("records.withoutCollector") +
               lost();
    };
    ASSERT_TRUE(eventually([&] { return accounted() == kThreads * (kRecords + 2); },
                           [] { IngressQueue::getInstance()->SendWakeupSignal(); }));
    EXPECT_EQ(log.count(3, "Collector name is not found, dropping the record"),
              count("records.withoutCollector"));
    EXPECT_LE(count("records.withoutCollector"), static_cast<std::uint64_t>(kThreads));

    tick(log, 1);
    ASSERT_TRUE(eventually([] { return VlmDataSubmissionControl::getInstance()->waitingReports() == 2; }));
    std::vector<Value> reports = takeReports(log);
    ASSERT_THAT(reports, SizeIs(2));
    const Value& idle = reports[0];
    EXPECT_EQ(idle["reportName"].asString(), "idle");
    ASSERT_THAT(idle["signalCollections"], SizeIs(1));
    EXPECT_TRUE(idle["signalCollections"][0]["samples"].isNull());
    EXPECT_TRUE(idle["signalCollections"][0]["endOfHistory"].isInt64());
    EXPECT_EQ(idle["signalCollections"][0]["serviceName"].asString(), "GNSS");

    const Value& trip = reports[1];
    EXPECT_EQ(trip["reportName"].asString(), "trip");
    EXPECT_EQ(trip["configName"].asString(), "bench");
    EXPECT_EQ(trip["functionId"].asString(), "TestCatalog");
    EXPECT_EQ(trip["sequenceNumber"].asInt(), 1);
    ASSERT_THAT(trip["signalCollections"], SizeIs(2)) << "one report holds the collections of the whole tick";
    for (const Value& collection : trip["signalCollections"]) {
        EXPECT_TRUE(collection["endOfHistory"].isString());
        EXPECT_EQ(collection["serviceName"].asString(), "GNSSProxy");
        EXPECT_EQ(collection["resourceName"].asString(), "positions");
        EXPECT_EQ(collection["historyLength"].asUInt(), collection["samples"].size());
        std::set<int> numbers;
        for (const Value& sample : collection["samples"]) {
            numbers.insert(sample["propertyValuePairs"]["number"].asInt());
            EXPECT_THAT(sample["propertyValuePairs"], SizeIs(2)) << "type and number";
        }
        if (collection["collectName"].asString() == "latest") {
            EXPECT_THAT(numbers, SizeIs(1));
        } else {
            EXPECT_EQ(collection["collectName"].asString(), "Gr\uFFFD\uFFFDe");
            EXPECT_GE(numbers.size() + lost(), static_cast<std::size_t>(kThreads * kRecords));
        }
    }

    tick(log, 2);
    ASSERT_TRUE(eventually([] { return VlmDataSubmissionControl::getInstance()->waitingReports() == 2; }));
    reports = takeReports(log);
    ASSERT_THAT(reports, SizeIs(4));
    EXPECT_EQ(reports[3]["sequenceNumber"].asInt(), 2);
    for (const Value& collection : reports[3]["signalCollections"]) {
        EXPECT_TRUE(collection["samples"].isNull()) << "what a report has is not in the next one";
    }
    EXPECT_EQ(kyo::Status::snapshot()["records"]["waiting"].asInt64(), 0);

    // The log lines of a tick's thread about its collector, in this order.
    const std::string last = "ZEPH-44489: ZEPH-64275: Collector: silent: In the History state";
    ASSERT_TRUE(log.waitFor(last));
    const auto all = log.messages(5);
    auto at = all.begin();
    for (const char* const begin : {"onOnEventCallback", "COLLECTOR NAME = silent",
                                    "ZEPH-47666: Collector silent: Last on event timestamp: ",
                                    "ZEPH-44489: ZEPH-64275: Collector: silent: In the Reportable state",
                                    "ZEPH-43176: Collector silent: moveRecordFromOutputqToReportBuffer",
                                    "Output queue of Collector silent is empty",
                                    "Inside VlmReportControl::addToReport\n\n\n", last.c_str()}) {
        at = std::find_if(at, all.end(), [&](const auto& message) { return message.starts_with(begin); });
        ASSERT_NE(at, all.end()) << begin;
    }
}

}  // namespace
}  // namespace vlmProd
