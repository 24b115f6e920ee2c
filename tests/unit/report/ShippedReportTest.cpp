// The text that waits in the shipping queue is the one that the writer makes of the whole report, and what
// leaves is the one that it makes of the report without its catalog id.
#include <gtest/gtest.h>

#include "base/JsonFields.h"
#include "report/ShippedReport.h"
#include "tests/support/RecordValue.h"

namespace {

using kyo::Json::Value;
using vlmProd::compactText;
using vlmProd::ShippedReport;

}  // namespace

TEST(ShippedReport, HoldsTheWritersTextWithAndWithoutTheCatalogIdAtAnyPlace) {
    for (const char* const text :
         {R"({"catalogId":"c","signalCollections":[{"samples":[1.5,"\u00e9"]}],"zone":null})",
          R"({"applicationName":"a","catalogId":"c","signalCollections":null})",
          R"({"applicationName":"a","catalogId":{"odd":[1,2]}})", R"({"catalogId":""})",
          R"({"applicationName":"no catalog id"})", "{}"}) {
        SCOPED_TRACE(text);
        Value report = vlmTest::valueOf(text);
        ShippedReport shipped(report);
        EXPECT_TRUE(shipped.isReadable());
        EXPECT_EQ(shipped.text(), compactText(report));
        const Value catalogId = report["catalogId"];
        report.removeMember("catalogId");
        EXPECT_EQ(shipped.withoutCatalogId(), compactText(report));
        EXPECT_EQ(shipped.withoutCatalogId(), compactText(report)) << "sent again";
        EXPECT_EQ(shipped.member("catalogId"), catalogId) << "the identifier of a repeated message needs it";
        EXPECT_TRUE(shipped.member("signalCollections").isNull()) << "that is text alone";
    }
}

TEST(ShippedReport, IsNotReadableWhenItIsNoReportOrNestedTooDeep) {
    EXPECT_FALSE(ShippedReport().isReadable());
    EXPECT_FALSE(ShippedReport(Value("text")).isReadable());
    EXPECT_EQ(ShippedReport(Value("text")).text(), "\"text\"");
    Value report = vlmTest::valueOf(R"({"reportName":"r"})");
    Value* at = &report["signalCollections"];
    for (int i = 0; i < 1100; ++i) {
        at = &at->append(Value(kyo::Json::arrayValue));
    }
    ShippedReport shipped(report);
    EXPECT_FALSE(shipped.isReadable());
    EXPECT_EQ(shipped.text(), R"({"reportName":"r","signalCollections":null})");
}
