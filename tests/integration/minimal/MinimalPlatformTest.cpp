/// The whole application on another platform, with its real threads: what the vehicle sends becomes parts of
/// the envelopes that the backend's client gets.
#include "bus/Publisher.h"
#include "collect/IngressQueue.h"
#include "com/Proxy.h"
#include "config/ConfigResponseHandler.h"
#include "examples/platform/ScriptedOrxClient.h"
#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/gnss/interface.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/support/NoConfigurations.h"
#include "tests/support/Test.h"
#include "tests/support/TestCatalog.h"

namespace vlmProd {
namespace {

namespace gnss = qdr::services::gnss;
using namespace vlmTest;

/// As a Latin-1 file has it. It cannot be read back from the record's text; its records must arrive.
const std::string kLatin1 = "Gr\xF6\xDF\x65";

const std::string kConfiguration = R"({
    "CONFIG": [{"name": "bench", "version": "7"}],
    "CLOCK": [{"name": "minute", "duration": 60000}],
    "REPORT": [{"name": "trip", "application": "fleet", "from": [")" +
                                   kLatin1 + R"(", "latest"]},
               {"name": "idle", "application": "fleet", "from": ["silent"]}],
    "COLLECT": [
        {"name": ")" + kLatin1 + R"(", "serv": "GNSS", "res": "positions", "index": 1, "history": 60000},
        {"name": "latest", "serv": "GNSS", "res": "positions", "index": 2},
        {"name": "silent", "serv": "GNSS", "res": "positionsQuality", "index": 1}]})";

const char* const kCatalog = R"({"meta": {"vlmVersion": "MinimalCatalog"}, "services": {"GNSS": {
    "positions": {"someipKeyProperty": "type", "instances": {"1": [], "2": []}},
    "positionsQuality": {"someipKeyProperty": "type", "instances": {"1": []}}}}})";

void send(int type, int number) {
    gnss::datatypes::DT_positions_struct sample;
    sample.type = static_cast<decltype(sample.type)::value_type>(type);
    sample.latitude = number;
    EXPECT_TRUE(Vehicle::instance().send(gnss::kInterface, gnss::kEvent_positions, std::vector{sample}));
}

/// Sends a tick once the threads of bus and report control sleep for the `times`th time. Returns its two
/// reports, each acknowledged.
std::vector<Value> reportsOfTick(const LogCapture& log, std::size_t times) {
    EXPECT_TRUE(log.waitFor("Going to wait mode in vlm pubsub service thread.", times));
    EXPECT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Report queue.", times));
    Message message;
    EventPublisher().publishMessage(message);
    ScriptedClient& backend = ScriptedClient::current();
    std::vector<Value> reports;
    for (std::size_t sent = 2 * times - 1; sent <= 2 * times; ++sent) {
        EXPECT_TRUE(eventually([&] { return backend.sends() == sent; },
                               [] { VlmDataSubmissionControl::getInstance()->SendWakeupSignal(); }));
        reports.push_back(reportIn(backend.envelopes().back()));
        backend.masterControl(control());
    }
    return reports;
}

// Only once per process: the singletons keep the setup's objects.
TEST(MinimalPlatform, BringsEverySampleOfItsVehicleIntoTheEnvelopesOfItsTick) {
    LogCapture log;
    haveCatalog(kCatalog);
    auto& submission = *VlmDataSubmissionControl::getInstance();
    submission.initializeServer("MinimalCatalog", {"VLMReport"}, std::make_shared<NoConfigurations>());
    submission.start();
    auto& setup = *ConfigResponseHandler::getInstance();
    ASSERT_TRUE(setup.doBaseSetupFromOrxConfigResponse(valueOf(kConfiguration), "record-1"));
    ASSERT_TRUE(eventually([&] {
        setup.subscribeOnce(setup.configuredResources(), [] {});
        return log.has(5, "Successfully subscribed for the resource positions");
    }));
    ScriptedClient::current().masterControl(control());

    // Three middleware threads deliver at once; type 3 belongs to no collector.
    constexpr int kThreads = 3;
    constexpr int kRecords = 100;
    Together(kThreads, [](int t) {
        for (int i = 0; i < kRecords; ++i) {
            send(1, t * kRecords + i);
        }
        send(2, t);
        send(3, t);
    }).join();
    // A record is dropped and counted when a preempted thread holds the lock during all ten tries.
    const auto lost = [] {
        return counted("queue.ingress.dropped") + counted("queue.collector.input.dropped") +
               counted("queue.collector.output.dropped");
    };
    ASSERT_TRUE(eventually(
        [&] {
            return counted("records.collected") + counted("records.expired") +
                       counted("records.withoutCollector") + lost() ==
                   kThreads * (kRecords + 2);
        },
        [] { IngressQueue::getInstance()->SendWakeupSignal(); }));
    EXPECT_LE(counted("records.withoutCollector"), static_cast<std::uint64_t>(kThreads));

    auto reports = reportsOfTick(log, 1);
    const Value& idle = reports[0];
    EXPECT_EQ(idle["reportName"], "idle");
    ASSERT_THAT(idle["signalCollections"], SizeIs(1));
    EXPECT_TRUE(idle["signalCollections"][0]["samples"].isNull());
    const Value& trip = reports[1];
    EXPECT_EQ(trip["reportName"], "trip");
    EXPECT_EQ(trip["functionId"], "MinimalCatalog");
    EXPECT_EQ(trip["sequenceNumber"], 1);
    ASSERT_THAT(trip["signalCollections"], SizeIs(2)) << "one report holds the collections of the whole tick";
    for (const Value& collection : trip["signalCollections"]) {
        EXPECT_EQ(collection["serviceName"], "GNSSProxy");
        std::set<int> numbers;
        for (const Value& sample : collection["samples"]) {
            numbers.insert(sample["propertyValuePairs"]["latitude"].asInt());
            EXPECT_THAT(sample["propertyValuePairs"], SizeIs(2)) << "type and latitude";
        }
        if (collection["collectName"] == "latest") {
            EXPECT_THAT(numbers, SizeIs(1));
        } else {
            EXPECT_EQ(collection["collectName"], "Gr\uFFFD\uFFFDe");
            EXPECT_GE(numbers.size() + lost(), static_cast<std::size_t>(kThreads * kRecords));
        }
    }

    reports = reportsOfTick(log, 2);
    EXPECT_EQ(reports[1]["sequenceNumber"], 2);
    for (const Value& collection : reports[1]["signalCollections"]) {
        EXPECT_TRUE(collection["samples"].isNull()) << "what a report has is not in the next one";
    }
    EXPECT_EQ(kyo::Status::snapshot()["records"]["waiting"].asInt64(), 0);
    EXPECT_TRUE(log.has(5, "Output queue of Collector silent is empty"));
}

}  // namespace
}  // namespace vlmProd
