#include "tools/vehicle/Replay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace vlmVehicle;
using testing::HasSubstr;

const char* const trackText = R"(<?xml version="1.0"?>
<gpx version="1.1" creator="test" xmlns="http://www.topografix.com/GPX/1/1">
 <trk><trkseg>
  <trkpt lat="50.0" lon="7.0"><ele>100</ele><time>2024-03-01T07:15:20Z</time></trkpt>
  <trkpt lat="50.001" lon="7.0"><ele>110</ele><time>2024-03-01T07:15:30.000Z</time></trkpt>
  <trkpt lat="50.001" lon="7.0"><ele>110</ele><time>2024-03-01T07:15:30Z</time></trkpt>
 </trkseg><trkseg>
  <trkpt lat="50.001" lon="7.002"><ele>110</ele><time>2024-03-01T08:15:40+01:00</time>
   <extensions><x:speed xmlns:x="urn:x">12.5</x:speed><x:course xmlns:x="urn:x">91</x:course></extensions></trkpt>
 </trkseg></trk>
</gpx>)";

std::string changed(const std::string& find, const std::string& replace) {
    std::string text = trackText;
    return text.replace(text.find(find), find.size(), replace);
}

TEST(GpxTrack, gives_place_speed_and_course_between_its_points) {
    GpxTrack track;
    std::string error;
    ASSERT_TRUE(GpxTrack::read(trackText, "t.gpx", track, error)) << error;
    ASSERT_EQ(track.points().size(), 3U) << "the repeated point is one";
    EXPECT_EQ(track.duration(), 20);
    const double way = 0.001 * M_PI / 180 * 6371000;
    EXPECT_NEAR(track.points()[1].speed, way / 10, 1e-6);
    EXPECT_NEAR(track.points()[0].heading, 0, 1e-9);
    EXPECT_EQ(track.points()[2].speed, 12.5);
    EXPECT_EQ(track.points()[2].heading, 91);
    const auto middle = track.at(5);
    EXPECT_NEAR(middle.latitude, 50.0005, 1e-9);
    EXPECT_NEAR(middle.altitude, 105, 1e-9);
    EXPECT_NEAR(track.at(15).longitude, 7.001, 1e-9);
    EXPECT_EQ(track.at(-3).latitude, 50.0);
    EXPECT_EQ(track.at(99).speed, 0) << "parked at the end";
}

TEST(GpxTrack, a_fault_is_named_with_its_line) {
    const std::pair<std::string, std::string> cases[] = {
        {changed("</gpx>", ""), "t.gpx:10: is not XML"},
        {changed("lat=\"50.001\"", "lat=\"north\""), "t.gpx:5: track point without a latitude"},
        {changed("lon=\"7.002\"", "lon=\"190\""), "t.gpx:8: track point without a longitude"},
        {changed("2024-03-01T08:15:40+01:00", "yesterday"), "t.gpx:8: track point without a time"},
        {changed("2024-03-01T08:15:40+01:00", "2024-03-01T07:15:00Z"), "t.gpx:8: time goes back"},
        {changed("<ele>100</ele>", "<ele>high</ele>"), "t.gpx:4: elevation \"high\" is no number"},
        {"<gpx/>", "at least two points"},
        {"", "is not XML"},
    };
    for (const auto& [text, expected] : cases) {
        GpxTrack track;
        std::string error;
        EXPECT_FALSE(GpxTrack::read(text, "t.gpx", track, error)) << expected;
        EXPECT_THAT(error, HasSubstr(expected));
    }
    GpxTrack track;
    std::string error;
    EXPECT_FALSE(GpxTrack::readFile("/nowhere/x.gpx", track, error));
    EXPECT_THAT(error, HasSubstr("/nowhere/x.gpx: cannot be read"));
}

const qdr::services::DescribedEvent& temperatures() {
    static const auto service = qdr::services::makeDescribedService("Temperature");
    for (auto* event : service->events()) {
        if (event->name() == "temperatures") {
            return *event;
        }
    }
    throw std::logic_error("no temperatures");
}

TEST(CsvRecording, makes_samples_of_rows_and_notifications_of_times) {
    const char* const text =
        "\xEF\xBB\xBFtimestamp, type ,temperaturePhysicalValue,temperatureValueType,displayUnit\r\n"
        "1700000000000,outside,-3.5,valid,celsius\r\n"
        "1700000000000,1,21.25,0,\"celsius\"\r\n"
        "\r\n"
        "1700000000500,0,,notAvailable,\r\n";
    CsvRecording recording;
    std::string error;
    ASSERT_TRUE(CsvRecording::read(text, "t.csv", temperatures(), recording, error)) << error;
    const auto& notifications = recording.notifications();
    ASSERT_EQ(notifications.size(), 2U);
    EXPECT_EQ(notifications[0].time, 0);
    EXPECT_NEAR(notifications[1].time, 0.5, 1e-9);
    ASSERT_EQ(notifications[0].samples.size(), 2U);
    EXPECT_EQ(std::get<std::string>(notifications[0].samples[0].at("type")), "outside");
    EXPECT_EQ(std::get<double>(notifications[0].samples[0].at("temperaturePhysicalValue")), -3.5);
    EXPECT_EQ(std::get<std::int64_t>(notifications[0].samples[1].at("type")), 1);
    const auto& sparse = notifications[1].samples[0];
    EXPECT_EQ(sparse.count("temperaturePhysicalValue"), 0U);
    EXPECT_EQ(sparse.count("displayUnit"), 0U);
    EXPECT_EQ(sparse.size(), 2U);
}

TEST(CsvRecording, a_fault_is_named_with_line_and_column) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "t.csv:1: a first line with the names"},
        {"type\n1\n", "t.csv:1: a column \"time\" (seconds) or \"timestamp\" (milliseconds)"},
        {"time,typ\n0,1\n", "t.csv:1: column \"typ\" is no field of temperatures; did you mean \"type\"?"},
        {"time,time\n0,1\n", "t.csv:1: column \"time\" is no field"},
        {"time,type\n", "no row with a sample follows"},
        {"time,type\n0,0\n1\n", "t.csv:3: 1 cells where 2 are expected"},
        {"time,type\n0,0\nsoon,0\n", "t.csv:3: column \"time\": \"soon\" is no number"},
        {"time,type\n5,0\n4,0\n", "t.csv:3: time goes back"},
        {"time,type\n0,outsid\n",
         "t.csv:2: column \"type\": \"outsid\" is none of outside, interior; did you mean \"outside\"?"},
        {"time,temperaturePhysicalValue\n0,warm\n",
         "t.csv:2: column \"temperaturePhysicalValue\": \"warm\" is no number"},
        {"time,temperaturePhysicalValue\n0,nan\n", "\"nan\" is no number"},
        {"time,type\n\n0,\"0\n", "t.csv:3: nothing closes this quotation mark"},
    };
    for (const auto& [text, expected] : cases) {
        CsvRecording recording;
        std::string error;
        EXPECT_FALSE(CsvRecording::read(text, "t.csv", temperatures(), recording, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

TEST(CsvCell, is_read_as_the_field_s_type) {
    const auto parse = [](const char* type, const char* text) -> std::string {
        qdr::services::FieldValue value;
        std::string error;
        const qdr::services::FieldInfo field{"f", type, "", "", false, 0, 0, {}};
        if (!parseField(text, field, value, error)) {
            return "refused";
        }
        return std::visit(
            [](const auto& v) -> std::string {
                if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>) {
                    return "text " + v;
                } else if constexpr (std::is_same_v<std::decay_t<decltype(v)>, bool>) {
                    return v ? "true" : "false";
                } else {
                    return std::to_string(v);
                }
            },
            value);
    };
    EXPECT_EQ(parse("uint64", "18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(parse("uint8", "-1"), "refused");
    EXPECT_EQ(parse("int32", "-12"), "-12");
    EXPECT_EQ(parse("int32", "1.5"), "refused");
    EXPECT_EQ(parse("bool", "true"), "true");
    EXPECT_EQ(parse("bool", "0"), "false");
    EXPECT_EQ(parse("bool", "yes"), "refused");
    EXPECT_EQ(parse("string", "a,b"), "text a,b");
    EXPECT_EQ(parse("float", "1e3"), "1000.000000");
}

}  // namespace
