#include "report/VlmReport.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "app/JsonFields.h"
#include "kyo/DateTime.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestCatalog.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using testing::ElementsAre;
using vlmTest::LogCapture;

SignalCollection collectionOf(const std::string& collector) {
    Value collection;
    collection["collectName"] = collector;
    collection["historyLength"] = 0;
    return SignalCollection(collection);
}

Value reportOf(VlmReport& report, const std::vector<SignalCollection>& collections,
               const std::string& catalogId = "") {
    Value value;
    EXPECT_TRUE(kyo::Json::Reader().parse(report.createReport(collections, catalogId).text(), value));
    return value;
}

std::vector<std::string> namesIn(const Value& report) {
    std::vector<std::string> names;
    for (const auto& collection : report["signalCollections"]) {
        names.push_back(collection["collectName"].asString());
    }
    return names;
}

class VlmReportTest : public testing::Test {
  protected:
    VlmReportTest() { vlmTest::haveCatalog(); }

    static VlmReport make(std::vector<std::string> from) {
        VlmReport report("trip");
        report.setCollectorsName(std::move(from));
        report.setApplicationName("fleet");
        report.setConfigName("basic");
        report.setConfigVersion("1.2");
        return report;
    }
};

TEST_F(VlmReportTest, CarriesItsIdentityAndTheCatalogs) {
    LogCapture log;
    VlmReport report = make({"a"});
    EXPECT_TRUE(log.has(
        5, "ReportName, TransactionTypeId, FunctionId: trip, TTORX-VLMOtaAnon.COORXVLMAnon, TestCatalog"));
    std::vector<SignalCollection> collections;
    collections.push_back(collectionOf("a"));
    const auto before = kyo::DateTime::getCurrentTimeMs();
    Value built = reportOf(report, collections, "catalog-7");
    const std::string created = built["createDatetime"].asString();
    EXPECT_TRUE(built["createDatetime"].isString());
    EXPECT_TRUE(std::all_of(created.begin(), created.end(), [](char c) { return c >= '0' && c <= '9'; }));
    EXPECT_GE(std::stoull(created), before);
    built.removeMember("createDatetime");
    EXPECT_EQ(
        compactText(built),
        R"({"applicationName":"fleet","catalogId":"catalog-7","configName":"basic","configVersion":"1.2",)"
        R"("functionId":"TestCatalog","numPartitions":1,"reportName":"trip","sequenceNumber":1,)"
        R"("signalCollections":[{"collectName":"a","historyLength":0}],)"
        R"("transactionTypeId":"TTORX-VLMOtaAnon.COORXVLMAnon"})");
}

TEST_F(VlmReportTest, CountsEveryReportAlsoAnEmptyOne) {
    VlmReport report = make({"nobody"});
    std::vector<SignalCollection> collections;
    collections.push_back(collectionOf("a"));
    EXPECT_EQ(reportOf(report, collections)["sequenceNumber"].asInt(), 1);
    EXPECT_EQ(reportOf(report, collections)["sequenceNumber"].asInt(), 2);
    VlmReport another("trip");
    EXPECT_EQ(reportOf(another, collections)["sequenceNumber"].asInt(), 1) << "a new one starts";
}

TEST_F(VlmReportTest, LeavesOutWhatItsFromBlockDoesNotName) {
    VlmReport report = make({"b", "a"});
    std::vector<SignalCollection> collections;
    for (const char* name : {"a", "A", "c", "b", "a"}) {
        collections.push_back(collectionOf(name));
    }
    collections.emplace_back(Value("no object"));
    collections.emplace_back(Value(kyo::Json::objectValue));
    LogCapture log;
    EXPECT_THAT(namesIn(reportOf(report, collections)), ElementsAre("a", "b", "a"));
    EXPECT_THAT(
        log.messages(4),
        ElementsAre("The collector AIs not part of report trip", "The collector cIs not part of report trip",
                    "The collector Is not part of report trip", "The collector Is not part of report trip"));
    EXPECT_TRUE(log.has(5, "Size of m_listOfCollectorNames: 2"));
    EXPECT_TRUE(log.has(5, "isCollectionPartOfReport::CollectorName b found"));
    EXPECT_TRUE(log.has(5, "isCollectionPartOfReport::CollectorName c not found"));
}

TEST_F(VlmReportTest, TellsAnEmptyBatchFromABatchOfOthers) {
    VlmReport report = make({"a"});
    EXPECT_TRUE(reportOf(report, {})["signalCollections"].isNull());
    const Value built = reportOf(report, {collectionOf("b")});
    EXPECT_TRUE(built["signalCollections"].isArray());
    EXPECT_EQ(built["signalCollections"].size(), 0U);
}

TEST_F(VlmReportTest, GathersACollectionWithoutANameOnlyWhenItListsTheEmptyName) {
    VlmReport report = make({""});
    std::vector<SignalCollection> collections;
    collections.emplace_back(Value(kyo::Json::objectValue));
    EXPECT_EQ(reportOf(report, collections)["signalCollections"].size(), 1U);
}

}  // namespace
}  // namespace vlmProd
