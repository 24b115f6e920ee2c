/// How vlm-watch shows samples.
#include "tools/watch/Text.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

namespace vlmWatch {
namespace {

using qdr::services::FieldValue;
using namespace vlmTest;

struct Text : Test {
    /// A sample of the only selected event; 2026-11-25 20:45:24.123456 UTC.
    Arrival arrival(const std::map<std::string, FieldValue>& values, std::int64_t index) const {
        const auto& fields = selection.front().event->fields();
        Arrival made{0, 1, 1795639524123456, index, qdr::services::DecodedSample(fields.size())};
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (const auto found = values.find(fields[i].name); found != values.end()) {
                made.values[i] = found->second;
            }
        }
        return made;
    }

    const Services services = describedServices();
    const std::vector<Selected> selection = select({"GNSS.positions"}, services);
    const std::map<std::string, FieldValue> sample{{"type", std::uint64_t{2}},
                                                   {"latitude", 48.401234567},
                                                   {"latitudeValueType", std::uint64_t{0}},
                                                   {"longitude", -9.5},
                                                   {"longitudeValueType", std::uint64_t{2}},
                                                   {"speed2DValueType", std::uint64_t{9}}};
};

TEST_F(Text, OfOneEventIsATableWithSteadyColumns) {
    Lines lines(selection, {.fields = {"latitude", "longitude", "speed2D"}});
    const auto first = linesOf(lines.of(arrival(sample, 2), 0));
    ASSERT_EQ(first.size(), 3u);
    EXPECT_THAT(first[0], StartsWith("UTC           GNSS.positions "));
    EXPECT_THAT(first[2], StartsWith("20:45:24.123  :2 satellitesOnly"));
    EXPECT_THAT(first[2], HasSubstr("-9.5 (notAvailable)"));
    EXPECT_THAT(first[2], HasSubstr("(9)")) << "a state that the description does not know";
    // Right below its name, with the unit between.
    const std::size_t end = first[0].find("latitude") + 8;
    EXPECT_EQ(first[1].find("deg") + 3, end);
    EXPECT_EQ(first[2].find("48.4012346") + 10, end);
    // Narrower values keep the place, and need no header.
    const auto second = linesOf(lines.of(arrival({{"latitude", 1.0}}, 1), 0));
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(second[0].find("1", second[0].find("fused") + 5) + 1, end);
    EXPECT_THAT(second[0], EndsWith("-"));
    EXPECT_THAT(explained(selection.front()), HasSubstr(":1 fused"));
}

TEST_F(Text, ForProgramsHasAllValuesUnchangedAndNothingFromTheNetworkActsOnATerminal) {
    const Value line = valueOf(jsonLine(selection.front(), arrival(sample, 2)));
    EXPECT_EQ(line["timestamp"].asInt64(), 1795639524123);
    EXPECT_EQ(line["index"].asInt(), 2);
    EXPECT_EQ(line["values"]["latitude"].asDouble(), 48.401234567);
    EXPECT_EQ(line["values"]["longitudeValueType"].asInt(), 2);
    EXPECT_EQ(line["values"].size(), sample.size());
    const auto& event = *selection.front().event;
    EXPECT_THAT(csvHeader(event), StartsWith("time,type,messageCounter,"));
    const std::string row = csvRow(event, arrival(sample, 2));
    EXPECT_THAT(row, StartsWith("1795639524.123456,satellitesOnly,,"));
    EXPECT_THAT(row, HasSubstr(",48.401234567,valid,-9.5,notAvailable,"));
    EXPECT_EQ(std::ranges::count(row, ','), static_cast<std::ptrdiff_t>(event.fields().size()));
    const qdr::services::FieldInfo field{"name", "string", "", ""};
    EXPECT_EQ(valueText(field, std::string("\x1b[2J\n\xff")), "\"\\u001b[2J\\n\\ufffd\"");
}

}  // namespace
}  // namespace vlmWatch
