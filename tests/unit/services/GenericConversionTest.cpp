#include <gmock/gmock.h>

#include <rttr/variant.h>
#include <string>
#include <vector>

#include "app/JsonFields.h"
#include "qdr/services/airbag/datatypes.h"
#include "services/Resource.h"
#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using namespace qdr::services::airbag::datatypes;

class GenericConversion : public testing::Test {
  protected:
    GenericConversion() {
        resource.setSomeIPKey("elementId");
        resource.setSomeIPIndexAttribute(
            1, {"crashSeverity", "deltaVelocityLateral", "isRollover", "crashCounter", "absent"});
    }

    std::string converted(rttr::variant samples) {
        resource.processData("crashInfo", std::move(samples));
        return compactText(resource.workValue());
    }
    static DT_crashInfo_struct sampleOf(int element) {
        DT_crashInfo_struct sample;
        sample.elementId = static_cast<CrashElement>(element);
        return sample;
    }

    Resource resource{"crashInfo"};
};

TEST_F(GenericConversion, WritesTheListedFieldsOfTheSamplesIndex) {
    vlmTest::LogCapture log;
    DT_crashInfo_struct sample = sampleOf(1);
    sample.crashSeverity = static_cast<CrashSeverity>(2);
    sample.deltaVelocityLateral = 0.5F;
    sample.isRollover = true;
    sample.crashCounter = std::uint16_t{4};
    sample.isRearCrash = true;
    EXPECT_EQ(converted(std::vector{sample}),
              R"({"crashSeverity":2,"deltaVelocityLateral":0.5,"elementId":1,"isRollover":true})");
    for (const char* text :
         {"Variant structure is good", "DATA TYPE Data is sequential container",
          "Populating values for key = elementId", "SOMEKEY VAL is matching", "ENUM INSERTION SUCCESSFULL",
          "Got the value type as eb::com::optional<float>", "Got the value type as eb::com::optional<bool>",
          "crashCounter is not found any value", "absent is not found any value"}) {
        EXPECT_TRUE(log.has(5, text)) << text;
    }
    EXPECT_TRUE(log.hasPart(5, "Getting SOMEIP property type = "));
    log.clear();
    resource.printJsonValues();
    EXPECT_THAT(log.messages(5), testing::ElementsAre("JSON VALUES MEMBER SIZE = 4",
                                                      "FAST WRITER = " + compactText(resource.workValue())));
}

TEST_F(GenericConversion, LeavesOutWhatIsAbsentAndSurvivesWhatIsNoSequenceOfStructures) {
    DT_crashInfo_struct keyless;
    keyless.isRollover = true;
    EXPECT_EQ(converted(std::vector{sampleOf(1), keyless}), "{}")
        << "a sample without its key is not of the index of the one before";
    EXPECT_EQ(converted(std::vector{sampleOf(1)}), R"({"elementId":1})");
    for (const rttr::variant& odd : {rttr::variant(), rttr::variant(7), rttr::variant(std::vector<int>{1})}) {
        EXPECT_EQ(converted(odd), "{}");
    }
}

}  // namespace
}  // namespace vlmProd
