// The text that waits in the shipping queue is the one that the writer makes of the whole report, and what
// leaves is the one that it makes of the report without its catalog id.
#include "report/Report.h"
#include "tests/support/Test.h"

using namespace vlmTest;
using vlmProd::Report;

TEST(Report, HasTheWritersTextWithAndWithoutTheCatalogIdOrIsNotReadable) {
    for (const char* const text :
         {R"({"catalogId":"c","signalCollections":[{"samples":[1.5,"\u00e9"]}],"zone":null})",
          R"({"applicationName":"a","catalogId":"c","signalCollections":null})",
          R"({"applicationName":"a","catalogId":{"odd":[1,2]}})", R"({"catalogId":""})",
          R"({"applicationName":"no catalog id"})", R"({"\"odd\u0001":0})", "{}"}) {
        SCOPED_TRACE(text);
        Value report = valueOf(text);
        const Report shipped(report);
        EXPECT_TRUE(shipped.isReadable());
        EXPECT_EQ(shipped.text(), compactText(report));
        EXPECT_EQ(shipped.length(), shipped.text().size()) << "its weight in the queue";
        report.removeMember("catalogId");
        EXPECT_EQ(shipped.textToSend(), compactText(report));
    }
    EXPECT_FALSE(Report().isReadable());
    EXPECT_FALSE(Report(Value("text")).isReadable());
    EXPECT_EQ(Report(Value("text")).text(), "\"text\"");
    Value report = valueOf(R"({"reportName":"r"})");
    Value* at = &report["signalCollections"];
    for (int i = 0; i < 1100; ++i) {
        at = &at->append(Value(kyo::Json::arrayValue));
    }
    EXPECT_FALSE(Report(report).isReadable());
}
