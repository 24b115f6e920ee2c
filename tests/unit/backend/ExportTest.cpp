#include "backend/store/Export.h"

#include "backend/store/Store.h"
#include "tests/support/Test.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::store {
namespace {

using namespace vlmTest;

TEST(Export, WritesChosenColumnsATrackAndTheEnvelopesOfATimeRange) {
    const TemporaryFolder folder;
    const std::string file = folder.file("db");
    Store store(file);
    constexpr long long t = 1'700'000'000'000;
    const std::string first =
        envelopeText("a", "[" + positionText(t + 1000, 1, 2) + "," + positionText(t, 3, 4) + "]");
    const std::string second =
        envelopeText("b",
                     R"([{"propertyValuePairs":{"elementId":1,"velocityPhysicalValue":0.1},"timestamp":")" +
                         std::to_string(t + 500) + "\"}]",
                     "ChassisProxy", "velocityInfo");
    const std::string late = envelopeText("c", "[" + positionText(t + 5000, 9, 9) + "]");
    for (const std::string& text : {first, second, late}) {
        const Received received{"vlm/a&b", text, "", "", text.size(), t};
        ASSERT_EQ(store.put({&received, 1})[0].outcome, Outcome::Stored);
    }
    Selection selection{
        "a&b", {"gnss_positions.latitude", "chassis_velocity_info.velocityPhysicalValue"}, t, t + 5000, {}};
    const auto sql = connect(file, true);
    std::ostringstream csv;
    EXPECT_EQ(exportCsv(*sql, selection, csv), 3);
    EXPECT_EQ(csv.str(),
              "time,instance,gnss_positions.latitude,chassis_velocity_info.velocityPhysicalValue\r\n"
              "2023-11-14T22:13:20.000Z,1,3,\r\n"
              "2023-11-14T22:13:20.500Z,1,,0.1\r\n"
              "2023-11-14T22:13:21.000Z,1,1,\r\n");
    std::ostringstream gpx;
    EXPECT_EQ(exportGpx(*sql, selection, gpx), 2);
    EXPECT_THAT(gpx.str(), HasSubstr("<name>a&amp;b</name>"));
    EXPECT_THAT(gpx.str(),
                HasSubstr("<trkpt lat=\"3\" lon=\"4\"><time>2023-11-14T22:13:20.000Z</time></trkpt>\n"
                          "<trkpt lat=\"1\" lon=\"2\">"));
    std::ostringstream lines;
    EXPECT_EQ(exportEnvelopes(*sql, selection, lines), 2);
    EXPECT_EQ(lines.str(), first + "\n" + second + "\n");

    for (const char* column : {"gnss_positions", "gnss_positions.nothing", "nothing.latitude", ""}) {
        selection.columns = {column};
        EXPECT_THROW(exportCsv(*sql, selection, csv), ExportError) << column;
    }
    selection.vehicle = "other";
    EXPECT_THROW(exportGpx(*sql, selection, gpx), ExportError);
}

TEST(Export, ReadsAndWritesUtc) {
    for (const auto& [text, ms] :
         {std::pair("1970-01-01", 0LL), std::pair("2023-11-14T22:13", 1'699'999'980'000LL),
          std::pair("2023-11-14T22:13:20Z", 1'700'000'000'000LL),
          std::pair("2023-11-14 22:13:20.123", 1'700'000'000'123LL)}) {
        EXPECT_EQ(utcMs(text), ms) << text;
    }
    EXPECT_EQ(utcText(-1), "1969-12-31T23:59:59.999Z");
    for (const char* text :
         {"", "2023", "2023-02-30", "2023-11-14T", "2023-11-14T25:00", "2023-11-14T10:00:60",
          "2023-11-14T10:00:00+01:00", "2023-11-14T10", "2023-11-14T10:00:-1"}) {
        EXPECT_THROW(utcMs(text), ExportError) << text;
    }
}

}  // namespace
}  // namespace vlmBackend::store
