#include "report/VlmReportControl.h"

#include <gmock/gmock.h>

#include <barrier>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/JsonFields.h"
#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestCatalog.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vlmTest::eventually;
using vlmTest::LogCapture;

Value parsed(const std::string& text) {
    Value value;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << reader.getFormattedErrorMessages();
    return value;
}

Value collectionOf(const std::string& collector, int samples = 0) {
    Value collection;
    collection["collectName"] = collector;
    collection["historyLength"] = samples;
    return collection;
}

/// What was shipped, in short: name, sequence number and collectors.
class Shipped {
  public:
    void add(const ShippedReport& shipped) {
        const Value report = parsed(shipped.text());
        std::string text = report["reportName"].asString() + "#" + report["sequenceNumber"].asString() + ":";
        for (const auto& collection : report["signalCollections"]) {
            text += " " + collection["collectName"].asString() + "=" + collection["historyLength"].asString();
        }
        const std::lock_guard<std::mutex> lock(m_guard);
        m_reports.push_back(text);
        m_last = report;
    }
    std::vector<std::string> reports() {
        const std::lock_guard<std::mutex> lock(m_guard);
        return m_reports;
    }
    Value last() {
        const std::lock_guard<std::mutex> lock(m_guard);
        return m_last;
    }

  private:
    std::mutex m_guard;
    std::vector<std::string> m_reports;
    Value m_last;
};

class VlmReportControlTest : public testing::Test {
  protected:
    VlmReportControlTest() { vlmTest::haveCatalog(); }

    const std::shared_ptr<Shipped> shipped = std::make_shared<Shipped>();
    VlmReportControl control{[to = shipped](const ShippedReport& report) { to->add(report); }};
};

const char* const kTwoReports = R"([
    {"name": "z-trip", "application": "fleet", "from": ["speed", "range"]},
    {"name": "a-safety", "application": "safety", "from": ["belts", "speed"]}])";

TEST_F(VlmReportControlTest, BuildsOneReportPerConfiguredReportInTheOrderOfTheirNames) {
    control.initializeReportControl(parsed(kTwoReports), "basic", "3");
    control.setCatalogId("record-9");
    control.addToReport(collectionOf("speed", 4));
    control.addToReport(collectionOf("range", 2));
    EXPECT_EQ(control.queued(), 48U);
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("a-safety#1: speed=4", "z-trip#1: speed=4 range=2"));
    EXPECT_EQ(control.queued(), 0U);
    const Value last = shipped->last();
    EXPECT_EQ(last["catalogId"].asString(), "record-9");
    EXPECT_EQ(last["applicationName"].asString(), "fleet");
    EXPECT_EQ(last["configName"].asString(), "basic");
    EXPECT_EQ(last["configVersion"].asString(), "3");
}

TEST_F(VlmReportControlTest, ShipsAReportThatGathersNothingOfTheBatch) {
    control.initializeReportControl(parsed(R"([{"name": "r", "application": "a", "from": ["x"]}])"), "", "");
    control.addToReport(collectionOf("y"));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("r#1:"));
    EXPECT_TRUE(shipped->last()["signalCollections"].isArray());
}

TEST_F(VlmReportControlTest, ShipsNothingForAnEmptyRound) {
    control.initializeReportControl(parsed(kTwoReports), "", "");
    LogCapture log;
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), IsEmpty());
    EXPECT_THAT(log.messages(4),
                ElementsAre("The Report control thread does not have any aggregated data to report."));
    EXPECT_TRUE(log.has(5, "Size of Aggregated output data = 0"));
}

TEST_F(VlmReportControlTest, TellsTheBatchInItsOrder) {
    control.initializeReportControl(parsed(R"([{"name": "r", "application": "a", "from": ["x"]}])"), "", "");
    control.addToReport(collectionOf("x"));
    LogCapture log;
    control.drainOnce();
    const auto lines = log.messages();
    const std::string json = compactText(collectionOf("x"));
    ASSERT_GE(lines.size(), 6U);
    EXPECT_THAT(
        std::vector<std::string>(lines.begin(), lines.begin() + 6),
        ElementsAre("From Report Q~", "Size of Aggregated output data = 1",
                    "AGGREGATED DATA I = 0  and JSON = " + json, "Aggreegated output data = [" + json + "]",
                    "Size of m_reportMap: 1",
                    "ZEPH-46511: VLM wants to create a report with following data from VLM configuration"));
    EXPECT_EQ(lines.back(), "ZEPH-49288: VLM wants to send the VLM Report to shipping buffer");
}

TEST_F(VlmReportControlTest, KeepsTheFirstReportOfAName) {
    LogCapture log;
    control.initializeReportControl(parsed(R"([{"name": "r", "application": "one", "from": ["x"]}])"), "c1",
                                    "1");
    control.addToReport(collectionOf("x"));
    control.drainOnce();
    control.initializeReportControl(parsed(R"([{"name": "r", "application": "two", "from": ["y"]},
                                               {"name": "s", "application": "two", "from": ["y"]}])"),
                                    "c2", "2");
    control.addToReport(collectionOf("x"));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("r#1: x=0", "r#2: x=0", "s#1:"));
    EXPECT_EQ(shipped->last()["configName"].asString(), "c2");
    EXPECT_TRUE(log.has(5, "ApplicationName, ConfigName, ConfigVersion: one, c1, 1"));
    EXPECT_TRUE(log.has(5, "Collector from 'From' block: y"));
}

TEST_F(VlmReportControlTest, RefusesWrongTypesByNameAndKeepsTheRest) {
    LogCapture log;
    control.initializeReportControl(parsed(R"([
        7, {"name": ["x"]}, {"name": 5, "application": {}, "from": ["x", [], 6]}, {"name": "n", "from": "x"}])"),
                                    "c", "1");
    control.initializeReportControl(parsed(R"({"name": "no array"})"), "c", "1");
    control.addToReport(collectionOf("x"));
    control.addToReport(collectionOf("6"));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("5#1: x=0 6=0", "n#1:"));
    EXPECT_THAT(log.messages(3),
                ElementsAre("REPORT[0].name is no text; the report is left out",
                            "REPORT[1].name is no text; the report is left out",
                            "REPORT[2].application is an object, not a text; it is left out",
                            "REPORT[2].from[1] is an array, not a text; it is left out",
                            "REPORT[3].from is a text, not an array; the report gathers nothing",
                            "REPORT is an object, not an array; no report is configured"));
}

// The tick threads of two collectors race the control's thread, while a configuration adds a report.
TEST(VlmReportControlThread, MakesOneBatchOfACollectorsTick) {
    vlmTest::haveCatalog();
    LogCapture log;
    const auto shipped = std::make_shared<Shipped>();
    auto* const control =
        new VlmReportControl([shipped](const ShippedReport& report) { shipped->add(report); });
    control->initializeReportControl(parsed(R"([{"name": "r", "application": "a", "from": ["x", "y"]}])"), "",
                                     "");
    control->start();
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Report queue."));
    std::barrier start(2);
    std::thread x([&] {
        start.arrive_and_wait();
        control->addToReport(collectionOf("x"));
    });
    std::thread y([&] {
        start.arrive_and_wait();
        control->addToReport(collectionOf("y"));
    });
    x.join();
    y.join();
    control->initializeReportControl(parsed(R"([{"name": "s", "application": "a", "from": []}])"), "", "");
    EXPECT_TRUE(
        eventually([&] { return shipped->reports().size() == 2; }, [&] { control->SendWakeupSignal(); }));
    EXPECT_THAT(shipped->reports(),
                testing::AnyOf(ElementsAre("r#1: x=0 y=0", "s#1:"), ElementsAre("r#1: y=0 x=0", "s#1:")));
    control->releaseVlmReportControl();
    EXPECT_TRUE(log.has(5, "Exiting the ReportControl thread"));
}

}  // namespace
}  // namespace vlmProd
