#include <gmock/gmock.h>

#include <rttr/registration>
#include <string>
#include <vector>

#include "app/JsonFields.h"
#include "eb/com/optional.h"
#include "qdr/services/TypeRegistration.h"
#include "services/Resource.h"
#include "tests/support/LogCapture.h"

namespace vlmTest {

enum class Kind : std::uint8_t { Tap = 1, Spring = 2 };

/// As the bindings generate it, with a field of each type that the conversion knows and of one that it does
/// not.
struct Sample {
    eb::com::optional<Kind> kind;
    eb::com::optional<float> level;
    eb::com::optional<double> flow;
    eb::com::optional<std::int32_t> balance;
    eb::com::optional<bool> isOpen;
    eb::com::optional<std::string> label;
    eb::com::optional<std::uint16_t> unknown;
};

}  // namespace vlmTest

RTTR_REGISTRATION {
    using vlmTest::Kind;
    using vlmTest::Sample;
    rttr::registration::enumeration<Kind>("vlmTest::Kind")(rttr::value("Tap", Kind::Tap),
                                                           rttr::value("Spring", Kind::Spring));
    qdr::services::registerOptional<Kind>();
    rttr::registration::class_<Sample>("vlmTest::Sample")
        .property("kind", &Sample::kind)
        .property("level", &Sample::level)
        .property("flow", &Sample::flow)
        .property("balance", &Sample::balance)
        .property("isOpen", &Sample::isOpen)
        .property("label", &Sample::label)
        .property("unknown", &Sample::unknown);
}

namespace vlmProd {
namespace {

using testing::Contains;
using vlmTest::Kind;
using vlmTest::LogCapture;
using vlmTest::Sample;

class GenericConversion : public testing::Test {
  protected:
    GenericConversion() {
        resource.setSomeIPKey("kind");
        resource.setSomeIPIndexAttribute(
            2, {"level", "flow", "balance", "isOpen", "label", "unknown", "absent"});
    }

    std::string converted(std::vector<Sample> samples) {
        resource.processData("springs", rttr::variant(std::move(samples)));
        return compactText(resource.workValue());
    }

    Resource resource{"springs"};
};

TEST_F(GenericConversion, WritesTheListedFieldsOfTheSamplesIndex) {
    LogCapture log;
    EXPECT_EQ(converted({Sample{Kind::Spring, 0.5F, 2.25, -3, true, "spring", std::uint16_t{4}}}),
              R"({"balance":-3,"flow":2.25,"isOpen":true,"kind":2,"label":"spring","level":0.5})");
    for (const char* text :
         {"Variant structure is good", "DATA TYPE Data is sequential container",
          "Populating values for key = kind", "SOMEKEY VAL is matching", "ENUM INSERTION SUCCESSFULL",
          "Got the value type as eb::com::optional<float>", "Got the value type as eb::com::optional<double>",
          "Got the value type as eb::com::optional<int>", "Got the value type as eb::com::optional<bool>",
          "Got the value type as eb::com::optional<string>", "unknown is not found any value",
          "absent is not found any value"}) {
        EXPECT_THAT(log.messages(5), Contains(text));
    }
    EXPECT_TRUE(log.hasPart(5, "Getting SOMEIP property type = "));
    log.clear();
    resource.printJsonValues();
    EXPECT_THAT(log.messages(5), testing::ElementsAre("JSON VALUES MEMBER SIZE = 6",
                                                      "FAST WRITER = " + compactText(resource.workValue())));
}

TEST_F(GenericConversion, LeavesOutAbsentFieldsAndIndexesWithoutAttributes) {
    EXPECT_EQ(converted({Sample{Kind::Spring, {}, {}, {}, {}, {}, {}}}), R"({"kind":2})");
    EXPECT_EQ(converted({Sample{Kind::Tap, 1.F, {}, {}, {}, {}, {}}}), R"({"kind":1})");
    EXPECT_EQ(converted({Sample{Kind::Spring, 1.F, {}, {}, {}, {}, {}}, Sample{{}, 2.F, {}, {}, {}, {}, {}}}),
              R"({"level":1.0})")
        << "a sample without its key is not of the index of the one before";
    EXPECT_EQ(converted({}), "{}") << "each conversion starts anew";
}

TEST_F(GenericConversion, SurvivesWhatIsNoSequenceOfStructures) {
    for (rttr::variant odd : {rttr::variant(), rttr::variant(7), rttr::variant(std::vector<int>{1, 2}),
                              rttr::variant(std::vector<std::string>{"x"})}) {
        resource.processData("springs", odd);
        EXPECT_EQ(compactText(resource.workValue()), "{}");
    }
}

}  // namespace
}  // namespace vlmProd
