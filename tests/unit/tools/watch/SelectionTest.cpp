/// The selections of vlm-watch, on the real descriptions.
#include "tools/watch/Selection.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace vlmWatch {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Selection : public testing::Test {
  protected:
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

    static std::string refusal(const std::string& text) {
        try {
            select({text}, services());
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "taken";
    }

    static const Services& services() {
        static const Services all = describedServices();
        return all;
    }
};

TEST_F(Selection, IsAServiceAnEventAndAnIndexByNumberOrName) {
    EXPECT_THAT(selected({"GNSS"}), ElementsAre("GNSS.positions", "GNSS.positionsQuality"));
    EXPECT_THAT(selected({"GNSS.positions"}), ElementsAre("GNSS.positions"));
    EXPECT_THAT(selected({"GNSS.positions:2"}), ElementsAre("GNSS.positions:2"));
    EXPECT_THAT(selected({"gnssproxy.POSITIONS:Fused"}), ElementsAre("GNSS.positions:1"));
    // Of a whole service: the events with that index.
    EXPECT_THAT(selected({"Temperature:interior"}), ElementsAre("Temperature.temperatures:1"));
    EXPECT_THAT(selected({"Temperature:1"}),
                ElementsAre("Temperature.temperatureWarnings:1", "Temperature.temperatures:1"));
}

TEST_F(Selection, JoinsWhatIsSelectedTwice) {
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
    EXPECT_THAT(refusal("GNS"), HasSubstr("no service is called \"GNS\"; did you mean \"GNSS\"?"));
    EXPECT_THAT(refusal("qqqqqq"), HasSubstr("known are ACC, AWV"));
    EXPECT_THAT(refusal("GNSS.position"),
                HasSubstr("GNSS has no event \"position\"; did you mean \"positions\"?"));
    EXPECT_THAT(refusal("GNSS.positions:fusde"), HasSubstr("no index \"fusde\"; did you mean \"fused\"?"));
    EXPECT_THAT(refusal("GNSS.positions:7"), HasSubstr("it has 1 (fused), 2 (satellitesOnly)"));
    EXPECT_THAT(refusal("GNSS.positions:99999999999999999999"),
                HasSubstr("it has 1 (fused), 2 (satellitesOnly)"));
    for (const char* text : {"", ".", ":", ".positions", "GNSS.", "GNSS:", "GNSS.positions:"}) {
        EXPECT_THAT(refusal(text), HasSubstr("SERVICE[.event][:index] is expected")) << text;
    }
}

}  // namespace
}  // namespace vlmWatch
