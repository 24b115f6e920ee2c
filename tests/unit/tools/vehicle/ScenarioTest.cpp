#include "tools/vehicle/Scenario.h"

#include "tests/support/Test.h"
#include "tools/vehicle/Faults.h"

namespace {

using namespace vlmVehicle;
using namespace vlmTest;

ScenarioPlayer playerOf(const std::string& text) {
    Scenario scenario;
    std::string error;
    EXPECT_TRUE(Scenario::read(valueOf(text), scenario, error)) << error;
    return ScenarioPlayer(std::move(scenario));
}

void play(ScenarioPlayer& player, DriveModel& model, double seconds) {
    for (int i = 0; i < static_cast<int>(seconds / 0.1 + 0.5); ++i) {
        player.advance(model, 0.1);
        model.step(0.1);
    }
}

TEST(Scenario, SetsControlsByTimeCourseAndCondition) {
    DriveModel model;
    auto player = playerOf(R"({"start": {"latitude": 48, "chargeState": 40}, "phases": [
        {"name": "a", "duration": 10, "set": {"gear": "drive", "belt.driver": "open"},
         "at": [{"time": 8, "set": {"hazard": true}}, {"time": 4, "set": {"belt.driver": "fastened", "rain": 3}}],
         "course": {"targetSpeed": [[2, 0], [6, 40]]},
         "when": [{"if": "speed > 15 and hazard == off", "set": {"highBeam": "on"}}]}]})");
    player.begin(model);
    const auto& c = model.controls();
    EXPECT_EQ(model.state().stateOfCharge, 40);
    EXPECT_FALSE(c.belted[Driver]);
    play(player, model, 1.9);
    EXPECT_EQ(c.targetSpeed, 0);
    play(player, model, 2.1);
    EXPECT_NEAR(c.targetSpeed, 20, 0.1);
    EXPECT_FALSE(c.highBeam);
    play(player, model, 3.2);
    EXPECT_TRUE(c.belted[Driver]);
    EXPECT_EQ(c.rain, 3);
    EXPECT_EQ(c.targetSpeed, 40) << "stays at the last point";
    EXPECT_TRUE(c.highBeam);
    EXPECT_FALSE(c.hazard);
    play(player, model, 2);
    EXPECT_TRUE(c.hazard);
    EXPECT_EQ(player.phase(), "a");
    play(player, model, 1.5);
    EXPECT_TRUE(player.over());
    EXPECT_TRUE(c.hazard) << "what was set stays";
}

TEST(Scenario, PhasesFollowEachOtherEndEarlyAndAreLeftOut) {
    DriveModel model;
    auto player = playerOf(R"({"loop": true, "phases": [
        {"name": "drive off", "duration": 60, "until": "speed >= 10", "set": {"targetSpeed": 50}},
        {"name": "charge", "if": "chargeState < 5", "duration": 100},
        {"name": "roll", "duration": 2}]})");
    player.begin(model);
    std::vector<std::string> phases;
    for (int i = 0; i < 150; ++i) {
        play(player, model, 0.1);
        if (phases.empty() || phases.back() != player.phase()) {
            phases.push_back(player.phase());
        }
    }
    ASSERT_GE(phases.size(), 4U);
    // The second time the car is fast enough at the start: the phase lasts one step.
    EXPECT_THAT(std::vector<std::string>(phases.begin(), phases.begin() + 4),
                ElementsAre("drive off", "roll", "drive off", "roll"));
}

TEST(Scenario, OverridesHoldInTheirTimeAndWhileTheirConditionDoes) {
    DriveModel model;
    auto player = playerOf(R"({"overrides": [
          {"event": "GNSS.positions", "key": 2, "field": "latitude", "value": null, "from": 1, "to": 3}],
        "phases": [{"duration": 2}, {"duration": 5, "set": {"rain": 5}, "overrides": [
          {"event": "Temperature.temperatures", "field": "displayUnit", "value": "fahrenheit", "while": "rain > 1"}]}]})");
    player.begin(model);
    for (const std::size_t expected : {0, 1, 2, 1}) {  // at 0, 1.5, 2.5 and 3.5 s
        EXPECT_EQ(player.overrides(model.state()).size(), expected) << player.time();
        play(player, model, player.time() == 0 ? 1.5 : 1);
    }
    model.controls().rain = 0;
    EXPECT_TRUE(player.overrides(model.state()).empty());
}

TEST(Fault, IsReadFromItsWords) {
    Fault fault;
    std::string error;
    ASSERT_TRUE(Fault::parseTimed("30:silence Airbag 2.5", fault, error)) << error;
    EXPECT_EQ(fault.at, 30);
    EXPECT_EQ(fault.kind, Fault::Silence);
    EXPECT_TRUE(fault.concerns("Airbag", "crashInfo"));
    EXPECT_FALSE(fault.concerns("GNSS", "positions"));
    EXPECT_EQ(fault.seconds, 2.5);
    const std::pair<const char*, const char*> wrong[] = {
        {"30:truncatd", "did you mean \"truncated\"?"},
        {"30:truncated * -1", "\"-1\" is no number"},
        {"30:stop * 1 x", "is too much"},
        {"30:", "no fault is called \"\"; known are"},
        {"x:restart", "\"SECONDS:FAULT\" is expected"},
    };
    for (const auto& [text, expected] : wrong) {
        EXPECT_FALSE(Fault::parseTimed(text, fault, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

TEST(Scenario, AFaultInTheFileIsNamedWithItsPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"phases": []})", "phases: at least one phase"},
        {R"({"phases": [{"name": "a"}]})", "phases[0].duration: a number of seconds above 0"},
        {R"({"phases": [{"duration": 1, "set": {"targetSped": 3}}]})",
         "phases[0].set: no control is called \"targetSped\"; did you mean \"targetSpeed\"?"},
        {R"({"phases": [{"duration": 1, "set": {"gear": "fifth"}}]})",
         "gear cannot be \"fifth\": one of park, reverse, neutral, drive"},
        {R"({"phases": [{"duration": 1}, {"duration": 1, "at": [{"time": "x", "set": {}}]}]})",
         "phases[1].at[0].time: a number is expected, found a text (\"x\")"},
        {R"({"phases": [{"duration": 1, "until": "sped > 3"}]})",
         "nothing is called \"sped\"; did you mean \"speed\"?"},
        {R"({"phases": [{"duration": 1, "until": "speed > 3 or rain > 1"}]})",
         "\"and\" is expected instead of \"or\""},
    };
    for (const auto& [text, expected] : cases) {
        Scenario scenario;
        std::string error;
        EXPECT_FALSE(Scenario::read(valueOf(text), scenario, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

}  // namespace
