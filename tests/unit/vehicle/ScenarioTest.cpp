#include "tools/vehicle/Scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace vlmVehicle;
using testing::HasSubstr;

kyo::Json::Value json(const std::string& text) {
    kyo::Json::Value value;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << reader.getFormattedErrorMessages();
    return value;
}

ScenarioPlayer playerOf(const std::string& text) {
    Scenario scenario;
    std::string error;
    EXPECT_TRUE(Scenario::read(json(text), scenario, error)) << error;
    return ScenarioPlayer(std::move(scenario));
}

void play(ScenarioPlayer& player, DriveModel& model, double seconds) {
    for (int i = 0; i < static_cast<int>(seconds / 0.1 + 0.5); ++i) {
        player.advance(model, 0.1);
        model.step(0.1);
    }
}

TEST(Scenario, sets_controls_by_time_course_and_condition) {
    DriveModel model;
    auto player = playerOf(R"({"start": {"latitude": 48, "chargeState": 40}, "phases": [
        {"name": "a", "duration": 10, "set": {"gear": "drive", "belt.driver": "open"},
         "at": [{"time": 8, "set": {"hazard": true}}, {"time": 4, "set": {"belt.driver": "fastened", "rain": 3}}],
         "course": {"targetSpeed": [[2, 0], [6, 40]]},
         "when": [{"if": "speed > 15 and hazard == off", "set": {"highBeam": "on"}}]}]})");
    player.begin(model);
    const auto& c = model.controls();
    EXPECT_EQ(model.state().latitude, 48);
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

TEST(Scenario, phases_follow_each_other_end_early_and_are_left_out) {
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
    // The second time it is fast enough from the beginning: the phase lasts one step.
    EXPECT_THAT(std::vector<std::string>(phases.begin(), phases.begin() + 4),
                testing::ElementsAre("drive off", "roll", "drive off", "roll"));
}

TEST(Scenario, overrides_hold_in_their_time_and_while_their_condition_does) {
    DriveModel model;
    auto player = playerOf(R"({"overrides": [
          {"event": "GNSS.positions", "key": 2, "field": "latitude", "value": null, "from": 1, "to": 3}],
        "phases": [{"name": "a", "duration": 2}, {"name": "b", "duration": 5, "set": {"rain": 5}, "overrides": [
          {"event": "Temperature.temperatures", "field": "displayUnit", "value": "fahrenheit", "while": "rain > 1"}]}]})");
    player.begin(model);
    EXPECT_TRUE(player.overrides(model.state()).empty());
    play(player, model, 1.5);
    ASSERT_EQ(player.overrides(model.state()).size(), 1U);
    EXPECT_EQ(player.overrides(model.state())[0]->field, "latitude");
    EXPECT_EQ(player.overrides(model.state())[0]->key, 2);
    play(player, model, 1);
    EXPECT_EQ(player.overrides(model.state()).size(), 2U);
    play(player, model, 1);
    EXPECT_EQ(player.overrides(model.state()).size(), 1U);
    model.controls().rain = 0;
    EXPECT_TRUE(player.overrides(model.state()).empty());
}

TEST(Scenario, a_fault_in_the_file_is_named_with_its_place) {
    const std::pair<const char*, const char*> cases[] = {
        {R"([])", "scenario: an object is expected, not an array"},
        {R"({"phases": []})", "phases: at least one phase"},
        {R"({"phase": []})", "\"phase\" is not known here; did you mean \"phases\"?"},
        {R"({"phases": [{"name": "a"}]})", "phases[0].duration: a number of seconds above 0"},
        {R"({"phases": [{"duration": 1, "set": {"targetSped": 3}}]})",
         "phases[0].set: no control is called \"targetSped\"; did you mean \"targetSpeed\"?"},
        {R"({"phases": [{"duration": 1, "set": {"gear": "fifth"}}]})",
         "gear cannot be \"fifth\": one of park, reverse, neutral, drive"},
        {R"({"phases": [{"duration": 1, "set": {"rain": "much"}}]})",
         "rain cannot be \"much\": a number is expected"},
        {R"({"phases": [{"duration": 1, "set": {"rain": []}}]})",
         "phases[0].set.rain: a number or a word is expected"},
        {R"({"phases": [{"duration": 1}, {"duration": 1, "at": [{"time": "x", "set": {}}]}]})",
         "phases[1].at[0].time: a number is expected, not a text"},
        {R"({"phases": [{"duration": 1, "course": {"gear": [[0, 1]]}}]})",
         "phases[0].course.gear: no control with a number"},
        {R"({"phases": [{"duration": 1, "course": {"rain": [[0]]}}]})",
         "points [seconds, value] are expected"},
        {R"({"phases": [{"duration": 1, "course": {"rain": [[5, 1], [2, 1]]}}]})", "must not go back"},
        {R"({"phases": [{"duration": 1, "when": [{"set": {}}]}]})", "phases[0].when[0]: \"if\" is missing"},
        {R"({"phases": [{"duration": 1, "until": "speed => 3"}]})",
         "phases[0].until: \"speed => 3\": \"=>\" is none of"},
        {R"({"phases": [{"duration": 1, "until": "sped > 3"}]})",
         "nothing is called \"sped\"; did you mean \"speed\"?"},
        {R"({"phases": [{"duration": 1, "until": "gear == fifth"}]})", "\"fifth\" is no value of gear"},
        {R"({"phases": [{"duration": 1, "until": "speed > 3 or rain > 1"}]})",
         "\"and\" is expected instead of \"or\""},
        {R"({"phases": [{"duration": 1}], "overrides": [{"event": "GNSS", "field": "x", "value": 1}]})",
         "overrides[0].event: \"Service.event\" is expected"},
        {R"({"phases": [{"duration": 1}], "overrides": [{"event": "GNSS.positions", "field": "x"}]})",
         "\"value\" is missing"},
        {R"({"phases": [{"duration": 1}], "start": {"latitude": "north"}})",
         "start.latitude: a number is expected"},
        {R"({"phases": [{"duration": 1}], "faults": [3]})", "faults: texts are expected"},
    };
    for (const auto& [text, expected] : cases) {
        Scenario scenario;
        std::string error;
        EXPECT_FALSE(Scenario::read(json(text), scenario, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

TEST(Scenario, the_built_in_one_drives_for_hours_and_charges_when_it_must) {
    DriveModel model;
    model.state().stateOfCharge = 16;
    ScenarioPlayer player(Scenario::plainDrive());
    player.begin(model);
    bool charged = false;
    double lowest = 100;
    for (int i = 0; i < 5400 * 10; ++i) {
        player.advance(model, 0.1);
        model.step(0.1);
        charged = charged || model.state().charging;
        lowest = std::min(lowest, model.state().stateOfCharge);
    }
    EXPECT_FALSE(player.over());
    EXPECT_TRUE(charged);
    EXPECT_GT(lowest, 5);
    EXPECT_GT(model.state().tripDistance, 30);
}

TEST(Scenario, the_examples_can_be_read_and_play_to_their_end) {
    int count = 0;
    for (const auto& file : std::filesystem::directory_iterator(VLM_EXAMPLES "/scenarios")) {
        Scenario scenario;
        std::string error;
        ASSERT_TRUE(Scenario::readFile(file.path(), scenario, error)) << error;
        EXPECT_FALSE(scenario.description.empty()) << file.path();
        const double duration = scenario.duration();
        scenario.loop = false;
        DriveModel model;
        ScenarioPlayer player(std::move(scenario));
        player.begin(model);
        play(player, model, duration + 1);
        EXPECT_TRUE(player.over()) << file.path() << " hangs in " << player.phase();
        ++count;
    }
    EXPECT_GE(count, 4);
}

}  // namespace
