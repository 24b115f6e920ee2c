#include "backend/store/Export.h"

#include "tests/unit/backend/Databases.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::store {
namespace {

using namespace vlmTest;

struct ExportTest : WithStore {
    void keep(const std::string& text) { ASSERT_EQ(arrive("vlm/a&b", text, kStart), Outcome::Stored); }
    std::string written(std::size_t rows,
                        std::size_t (*write)(const Lend&, const Selection&, std::ostream&) = exportCsv) {
        std::ostringstream out;
        EXPECT_EQ(write(lend, selection, out), rows);
        return out.str();
    }
    static constexpr long long kStart = 1'700'000'000'000;
    Lend lend = [this](const auto& work) { work(*connect(where, true)); };
    Selection selection{"a&b",
                        {"gnss_positions.latitude", "chassis_velocity_info.velocityPhysicalValue"},
                        kStart,
                        kStart + 5000,
                        {}};
};
INSTANTIATE_WITH_EACH_DATABASE(ExportTest);

TEST_P(ExportTest, WritesChosenColumnsATrackAndTheEnvelopesOfATimeRange) {
    const std::string first =
        envelopeText("a", "[" + positionText(kStart + 1000, 1, 2) + "," + positionText(kStart, 3, 4) + "]");
    const std::string second =
        envelopeText("b",
                     R"([{"propertyValuePairs":{"elementId":1,"velocityPhysicalValue":0.1},"timestamp":")" +
                         std::to_string(kStart + 500) + "\"}]",
                     "ChassisProxy", "velocityInfo");
    keep(first);
    keep(second);
    keep(envelopeText("c", "[" + positionText(kStart + 5000, 9, 9) + "]"));
    EXPECT_EQ(written(3),
              "time,instance,gnss_positions.latitude,chassis_velocity_info.velocityPhysicalValue\r\n"
              "2023-11-14T22:13:20.000Z,1,3,\r\n"
              "2023-11-14T22:13:20.500Z,1,,0.1\r\n"
              "2023-11-14T22:13:21.000Z,1,1,\r\n");
    EXPECT_THAT(written(2, exportGpx),
                AllOf(HasSubstr("<name>a&amp;b</name>"),
                      HasSubstr("<trkpt lat=\"3\" lon=\"4\"><time>2023-11-14T22:13:20.000Z</time></trkpt>\n"
                                "<trkpt lat=\"1\" lon=\"2\">")));
    EXPECT_EQ(written(2, exportEnvelopes), first + "\n" + second + "\n");

    std::string samples;
    for (int i = 0; i < 2500; ++i) {
        samples += (i == 0 ? "[" : ",") + positionText(kStart + 8000, i, 9);
    }
    keep(envelopeText("d", samples + "]"));
    selection.fromMs = selection.toMs = kStart + 8000;
    ++selection.toMs;
    std::istringstream all(written(2500));  // of one time, in three parts
    EXPECT_EQ(std::set<std::string>(std::istream_iterator<std::string>(all), {}).size(), 1 + 2500);

    for (const char* column : {"gnss_positions", "gnss_positions.nothing", "nothing.latitude", ""}) {
        selection.columns = {column};
        EXPECT_THROW(written(0), ExportError) << column;
    }
    selection.vehicle = "other";
    EXPECT_THROW(written(0, exportGpx), ExportError);
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
