#include "tools/vehicle/Replay.h"

#include "tests/support/Test.h"

#include <cmath>

namespace {

using namespace vlmVehicle;
using namespace vlmTest;

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

TEST(GpxTrack, GivesPlaceSpeedAndCourseBetweenItsPoints) {
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

const qdr::services::DescribedEvent& temperatures() {
    static const auto service = qdr::services::makeDescribedService("Temperature");
    const auto events = service->events();
    return **std::ranges::find(events, "temperatures", &qdr::services::DescribedEvent::name);
}

TEST(CsvRecording, MakesSamplesOfRowsAndNotificationsOfTimes) {
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
    const auto& first = notifications[0].samples[0];
    EXPECT_EQ(std::get<std::string>(first.at("type")), "outside");
    EXPECT_EQ(std::get<double>(first.at("temperaturePhysicalValue")), -3.5);
    EXPECT_EQ(std::get<std::int64_t>(notifications[0].samples[1].at("type")), 1);
    EXPECT_THAT(notifications[1].samples[0],
                UnorderedElementsAre(testing::Key("type"), testing::Key("temperatureValueType")));
}

TEST(Replay, AFaultIsNamedWithItsLine) {
    std::string error;
    GpxTrack track;
    const std::pair<std::string, const char*> tracks[] = {
        {changed("</gpx>", ""), "t.gpx:10: is not XML"},
        {changed("lat=\"50.001\"", "lat=\"north\""), "t.gpx:5: track point without a latitude"},
        {changed("2024-03-01T08:15:40+01:00", "2024-03-01T07:15:00Z"), "t.gpx:8: time goes back"},
    };
    for (const auto& [text, expected] : tracks) {
        EXPECT_FALSE(GpxTrack::read(text, "t.gpx", track, error)) << expected;
        EXPECT_THAT(error, HasSubstr(expected));
    }
    CsvRecording recording;
    const std::pair<const char*, const char*> recordings[] = {
        {"type\n1\n", "t.csv:1: a column \"time\" (seconds) or \"timestamp\" (milliseconds)"},
        {"time,typ\n0,1\n", "t.csv:1: column \"typ\" is no field of temperatures; did you mean \"type\"?"},
        {"time,type\n5,0\n4,0\n", "t.csv:3: time goes back"},
        {"time,temperaturePhysicalValue\n0,nan\n", "\"nan\" is no number"},
        {"time,type\n\n0,\"0\n", "t.csv:3: nothing closes this quotation mark"},
    };
    for (const auto& [text, expected] : recordings) {
        EXPECT_FALSE(CsvRecording::read(text, "t.csv", temperatures(), recording, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

}  // namespace
