/// The selections of vlm-watch, on the real descriptions.
#include "tools/watch/Selection.h"

#include "tests/support/Test.h"

namespace vlmWatch {
namespace {

using namespace vlmTest;

struct Selection : Test {
    /// "GNSS.positions:1,2"; no index is all of them.
    static std::vector<std::string> selected(const std::vector<std::string>& texts) {
        std::vector<std::string> all;
        for (const Selected& one : select(texts, services())) {
            std::string text = one.path();
            for (const std::int64_t index : one.indexes) {
                text += (index == *one.indexes.begin() ? ":" : ",") + std::to_string(index);
            }
            all.push_back(std::move(text));
        }
        return all;
    }

    static const Services& services() {
        static const Services all = describedServices();
        return all;
    }
};

TEST_F(Selection, IsAServiceAnEventAndAnIndexByNumberOrNameJoinedWhereItComesTwice) {
    EXPECT_THAT(selected({"GNSS"}), ElementsAre("GNSS.positions", "GNSS.positionsQuality"));
    EXPECT_THAT(selected({"GNSS.positions"}), ElementsAre("GNSS.positions"));
    EXPECT_THAT(selected({"GNSS.positions:2"}), ElementsAre("GNSS.positions:2"));
    EXPECT_THAT(selected({"gnssproxy.POSITIONS:Fused"}), ElementsAre("GNSS.positions:1"));
    // Of a whole service: the events with that index.
    EXPECT_THAT(selected({"Temperature:interior"}), ElementsAre("Temperature.temperatures:1"));
    EXPECT_THAT(selected({"Temperature:1"}),
                ElementsAre("Temperature.temperatureWarnings:1", "Temperature.temperatures:1"));
    EXPECT_THAT(selected({"GNSS.positions:2", "Chassis.axes", "GNSS.positions:1"}),
                ElementsAre("GNSS.positions:1,2", "Chassis.axes"));
    EXPECT_THAT(selected({"GNSS.positions:2", "GNSS"}),
                ElementsAre("GNSS.positions", "GNSS.positionsQuality"));
    EXPECT_THAT(selected({"GNSS.positions", "GNSS.positions:2"}), ElementsAre("GNSS.positions"));
    std::size_t events = 0;
    for (const auto& service : services()) {
        events += service->events().size();
    }
    EXPECT_EQ(selected({}).size(), events);
}

TEST_F(Selection, IsRefusedWithNearNames) {
    std::vector<std::pair<const char*, const char*>> cases{
        {"GNS", "no service is called \"GNS\"; did you mean \"GNSS\"?"},
        {"qqqqqq", "known are ACC, AWV"},
        {"GNSS.position", "GNSS has no event \"position\"; did you mean \"positions\"?"},
        {"GNSS.positions:fusde", "no index \"fusde\"; did you mean \"fused\"?"},
        {"GNSS.positions:7", "it has 1 (fused), 2 (satellitesOnly)"},
        {"GNSS.positions:99999999999999999999", "it has 1 (fused), 2 (satellitesOnly)"}};
    for (const char* text : {"", ".", ":", ".positions", "GNSS.", "GNSS:", "GNSS.positions:"}) {
        cases.emplace_back(text, "SERVICE[.event][:index] is expected");
    }
    for (const auto& [text, reason] : cases) {
        EXPECT_THAT([&text = text] { select({text}, services()); },
                    testing::ThrowsMessage<std::runtime_error>(HasSubstr(reason)))
            << text;
    }
}

}  // namespace
}  // namespace vlmWatch
