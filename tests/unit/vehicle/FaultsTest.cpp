#include "tools/vehicle/Faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/vehicle/Vehicle.h"

namespace {

using namespace vlmVehicle;
using testing::HasSubstr;

TEST(Fault, is_read_from_its_words) {
    Fault fault;
    std::string error;
    ASSERT_TRUE(Fault::parse("truncated GNSS.positions 3", fault, error)) << error;
    EXPECT_EQ(fault.kind, Fault::Wire);
    EXPECT_EQ(fault.wire, ac::com::WireFault::TruncatedStructure);
    EXPECT_EQ(fault.count, 3);
    EXPECT_TRUE(fault.concerns("GNSS", "positions"));
    EXPECT_FALSE(fault.concerns("GNSS", "positionsQuality"));
    ASSERT_TRUE(Fault::parse("silence Airbag 2.5", fault, error)) << error;
    EXPECT_TRUE(fault.concerns("Airbag", "crashInfo"));
    EXPECT_FALSE(fault.concerns("GNSS", "positions"));
    EXPECT_EQ(fault.seconds, 2.5);
    ASSERT_TRUE(Fault::parseTimed("30:restart", fault, error)) << error;
    EXPECT_EQ(fault.at, 30);
    EXPECT_EQ(fault.kind, Fault::Restart);
    for (const auto& word : faultWords()) {
        EXPECT_TRUE(Fault::parse(word, fault, error)) << word;
    }
    const std::pair<const char*, const char*> wrong[] = {
        {"truncatd", "did you mean \"truncated\"?"},
        {"nonsense", "known are"},
        {"silence * long", "\"long\" is no number"},
        {"truncated * -1", "\"-1\" is no number"},
        {"stop * 1 x", "is too much"},
        {"", "no fault is called \"\""},
    };
    for (const auto& [text, expected] : wrong) {
        EXPECT_FALSE(Fault::parse(text, fault, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
    for (const char* text : {"restart", "x:restart", ":restart"}) {
        EXPECT_FALSE(Fault::parseTimed(text, fault, error)) << text;
    }
}

TEST(Vehicle, says_what_it_cannot_do_before_it_starts) {
    struct Case {
        VehicleOptions options;
        const char* expected;
    };
    std::vector<Case> cases(6);
    cases[0] = {{}, "no service is called \"GNS\"; did you mean \"GNSS\"?"};
    cases[0].options.services = {"GNS"};
    cases[1] = {{}, "no offered event is called \"GNSS.position\"; did you mean \"GNSS.positions\"?"};
    cases[1].options.periods["GNSS.position"] = 10;
    cases[2] = {{}, "no offered event is called \"Airbag\""};
    cases[2].options.services = {"GNSS"};
    cases[2].options.faults.resize(1);
    cases[2].options.faults[0].service = "Airbag";
    cases[3] = {{}, "/nowhere.json: cannot be read"};
    cases[3].options.scenario = "/nowhere.json";
    cases[4] = {{}, "/nowhere.gpx: cannot be read"};
    cases[4].options.track = "/nowhere.gpx";
    cases[5] = {{}, "/nowhere.csv: cannot be read"};
    cases[5].options.recordings = {{"GNSS.positions", "/nowhere.csv"}};
    for (const auto& [options, expected] : cases) {
        Vehicle vehicle(options, [](const std::string&) {});
        std::string error;
        EXPECT_FALSE(vehicle.prepare(error)) << expected;
        EXPECT_THAT(error, HasSubstr(expected));
    }
}

TEST(Vehicle, obeys_commands_and_refuses_others_with_a_reason) {
    VehicleOptions options;
    options.services = {"GNSS"};
    std::vector<std::string> printed;
    Vehicle vehicle(options, [&](const std::string& line) { printed.push_back(line); });
    std::string error;
    ASSERT_TRUE(vehicle.prepare(error)) << error;
    EXPECT_TRUE(vehicle.command("set rain 5", error));
    EXPECT_FALSE(vehicle.command("set rian 5", error));
    EXPECT_THAT(error, HasSubstr("did you mean \"rain\"?"));
    EXPECT_FALSE(vehicle.command("set rain", error));
    EXPECT_FALSE(vehicle.command("jump", error));
    EXPECT_FALSE(vehicle.command("silence Airbag", error));
    EXPECT_THAT(error, HasSubstr("no offered event is called \"Airbag\""));
    EXPECT_TRUE(vehicle.command("", error));
    EXPECT_TRUE(vehicle.command("status", error));
    EXPECT_THAT(printed.back(), HasSubstr("km/h"));
    EXPECT_FALSE(vehicle.restartWanted());
    EXPECT_TRUE(vehicle.command("restart", error));
    EXPECT_TRUE(vehicle.restartWanted());
}

}  // namespace
