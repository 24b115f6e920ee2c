#include "report/VlmReportControl.h"

#include "kyo/DateTime.h"
#include "tests/support/Test.h"
#include "tests/support/TestCatalog.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

SignalCollection collectionOf(const std::string& collector) {
    return SignalCollection(valueOf(R"({"collectName":")" + collector + "\"}"));
}

/// What was shipped.
struct Shipped : SharedList<Value> {
    void add(const Report& report) { SharedList::add(valueOf(report.text())); }
    /// In short: name, sequence number and collectors.
    std::vector<std::string> reports() const {
        std::vector<std::string> out;
        for (const Value& report : all()) {
            out.push_back(report["reportName"].asString() + "#" + report["sequenceNumber"].asString() + ":");
            for (const auto& collection : report["signalCollections"]) {
                out.back() += " " + collection["collectName"].asString();
            }
        }
        return out;
    }
    Value last() const { return all().back(); }
};

struct VlmReportControlTest : Test {
    static void SetUpTestSuite() { haveCatalog(); }

    void configure(const char* reports, const std::string& name = "basic") {
        control.initializeReportControl(valueOf(reports), name, "1.2");
    }

    LogCapture log;
    const std::shared_ptr<Shipped> shipped = std::make_shared<Shipped>();
    VlmReportControl control{[to = shipped](const Report& report) { to->add(report); }};
};

TEST_F(VlmReportControlTest, BuildsOneReportPerConfiguredReportInTheOrderOfTheirNames) {
    configure(R"([{"name": "z-trip", "application": "fleet", "from": ["speed", "range"]},
                  {"name": "a-safety", "application": "safety", "from": ["belts", "speed"]}])");
    control.setCatalogId("record-9");
    control.addToReport(collectionOf("speed"));
    control.addToReport(collectionOf("range"));
    EXPECT_EQ(control.queued(), 48U);
    const auto before = kyo::DateTime::getCurrentTimeMs();
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("a-safety#1: speed", "z-trip#1: speed range"));
    EXPECT_EQ(control.queued(), 0U);
    Value last = shipped->last();
    const std::string created = last["createDatetime"].asString();
    EXPECT_THAT(created, MatchesRegex("[0-9]+"));
    EXPECT_GE(std::stoull(created), before);
    EXPECT_TRUE(last["createDatetime"].isString());
    last.removeMember("createDatetime");
    EXPECT_EQ(
        compactText(last),
        R"({"applicationName":"fleet","catalogId":"record-9","configName":"basic","configVersion":"1.2",)"
        R"("functionId":"TestCatalog","numPartitions":1,"reportName":"z-trip","sequenceNumber":1,)"
        R"("signalCollections":[{"collectName":"speed"},{"collectName":"range"}],)"
        R"("transactionTypeId":"TTORX-VLMOtaAnon.COORXVLMAnon"})");

    control.drainOnce();
    EXPECT_EQ(shipped->reports().size(), 2U) << "nothing for an empty round";
}

TEST_F(VlmReportControlTest, LeavesOutWhatTheFromBlockDoesNotName) {
    configure(R"([{"name": "r", "application": "a", "from": ["x", "y"]}])");
    for (const char* const name : {"x", "X", "y", "x"}) {
        control.addToReport(collectionOf(name));
    }
    control.addToReport(SignalCollection(Value("no object")));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("r#1: x y x"));
    EXPECT_THAT(log.messages(4), ElementsAre("The collector XIs not part of report r",
                                             "The collector Is not part of report r"));
    EXPECT_TRUE(log.has(5, "isCollectionPartOfReport::CollectorName X not found"));
}

TEST_F(VlmReportControlTest, KeepsTheFirstReportOfANameAndShipsOneThatGathersNothing) {
    configure(R"([{"name": "r", "application": "one", "from": ["x"]}])", "c1");
    control.addToReport(collectionOf("x"));
    control.drainOnce();
    configure(R"([{"name": "r", "application": "two", "from": ["y"]},
                  {"name": "s", "application": "two", "from": ["y"]}])",
              "c2");
    control.addToReport(collectionOf("x"));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("r#1: x", "r#2: x", "s#1:"));
    EXPECT_EQ(shipped->last()["configName"].asString(), "c2");
    EXPECT_TRUE(shipped->last()["signalCollections"].isArray());
    control.processReportQueue({});
    EXPECT_TRUE(shipped->last()["signalCollections"].isNull()) << "an empty batch is not one of others";
}

TEST_F(VlmReportControlTest, RefusesWrongTypesByNameAndKeepsTheRest) {
    configure(R"([
        7, {"name": ["x"]}, {"name": 5, "application": {}, "from": ["x", [], 6]}, {"name": "n", "from": "x"}])");
    configure(R"({"name": "no array"})");
    control.addToReport(collectionOf("x"));
    control.addToReport(collectionOf("6"));
    control.drainOnce();
    EXPECT_THAT(shipped->reports(), ElementsAre("5#1: x 6", "n#1:"));
    EXPECT_THAT(
        log.messages(3),
        ElementsAre("REPORT[0]: an object is expected, found a number (7); it is left out",
                    "REPORT[1].name: a text is expected, found an array; it is left out",
                    "REPORT[2].application: a text is expected, found an object; it is left out",
                    "REPORT[2].from[1]: a text is expected, found an array; it is left out",
                    "REPORT[3].from: an array of texts is expected, found a text (\"x\"); it is left out",
                    "REPORT: an array of objects is expected, found an object; it is left out"));
}

// The tick threads of two collectors race the control's thread, while a configuration adds a report.
TEST_F(VlmReportControlTest, MakesOneBatchOfACollectorsTick) {
    auto* const threaded = new VlmReportControl([to = shipped](const Report& report) { to->add(report); });
    threaded->initializeReportControl(valueOf(R"([{"name": "r", "from": ["x", "y"]}])"), "", "");
    threaded->start();
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Report queue."));
    Together(2, [&](int t) { threaded->addToReport(collectionOf(t == 0 ? "x" : "y")); }).join();
    threaded->initializeReportControl(valueOf(R"([{"name": "s", "application": "a", "from": []}])"), "", "");
    EXPECT_TRUE(eventually([&] { return shipped->size() == 2; }, [&] { threaded->SendWakeupSignal(); }));
    EXPECT_THAT(shipped->reports(), ElementsAre(testing::AnyOf("r#1: x y", "r#1: y x"), "s#1:"));
    threaded->releaseVlmReportControl();
    EXPECT_TRUE(log.has(5, "Exiting the ReportControl thread"));
}

}  // namespace
