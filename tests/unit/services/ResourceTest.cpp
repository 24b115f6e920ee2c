#include "services/Resource.h"

#include <rttr/variant.h>

#include "collect/IngressQueue.h"
#include "qdr/services/airbag/datatypes.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

Value recordOf(const Value& type) {
    Value record =
        valueOf(R"({"resName":"positions","serviceName":"GNSSProxy","timestamp":1234,"zeta":1.5})");
    if (!type.isNull()) {
        record["type"] = type;
    }
    return record;
}

/// The process's ingress queue has no thread here: what a resource puts in is taken out by hand.
struct ResourceTest : Test {
    ResourceTest() {
        Record old;
        while (IngressQueue::getInstance()->takeRecord(&old)) {
        }
        resource.setSomeIPKey("type");
    }

    Value through(Value record) {
        resource.processData(std::move(record));
        Record taken;
        EXPECT_TRUE(IngressQueue::getInstance()->takeRecord(&taken));
        return valueOf(taken.text);
    }

    Resource resource{"positions"};
};

TEST_F(ResourceTest, GivesACollectorToARecordOfItsServiceResourceAndIndexOnly) {
    resource.setCollectorName("GNSSProxy", "positions", 0, "replaced");
    resource.setCollectorName("GNSSProxy", "positions", 0, "zero");
    resource.setCollectorName("GNSSProxy", "positions", -1, "minus");
    resource.setCollectorName("OtherProxy", "positions", 3, "another service");
    resource.setCollectorName("GNSSProxy", "positionsQuality", 4, "another resource");
    EXPECT_EQ(through(recordOf(0U))["collectorName"].asString(), "zero");
    for (const Value& type :
         {Value(), Value(3), Value(4), Value(kyo::Json::UInt64{4294967295U}), Value("0")}) {
        EXPECT_EQ(compactText(through(recordOf(type))), compactText(recordOf(type)))
            << "no member is added, not even by looking";
    }
    EXPECT_EQ(through(Value("no object")), Value("no object"));
    resource.setSomeIPKey("");
    EXPECT_EQ(compactText(through(recordOf(0U))), compactText(recordOf(0U)));
}

TEST_F(ResourceTest, LogsItsAttributesAndTheCompletedRecordAsTheWriterWouldWhereverTheNewMembersBelong) {
    LogCapture log;
    resource.addAttribute("one");
    resource.addAttributes({"one", "two"});
    EXPECT_TRUE(log.has(5, "Size of Attributes = 3"));
    resource.setCollectorName("", "positions", 1, "fu\"sed");
    for (const char* const text : {R"({"type":1})", R"({"aaa":"}{","type":1,"zz":[{"index":5}]})",
                                   R"({"collectorName":"brought along","index":9,"type":1})"}) {
        Value completed = valueOf(std::string(text));
        log.clear();
        EXPECT_EQ(through(completed)["collectorName"].asString(), "fu\"sed");
        completed["collectorName"] = "fu\"sed";
        completed["index"] = 1;
        EXPECT_TRUE(log.has(5, "Size of attributes = 3"));
        EXPECT_TRUE(log.has(5, "FAST WRITER = " + compactText(completed))) << text;
    }
}

TEST_F(ResourceTest, ConvertsTheListedFieldsOfTheStructuresOfAnIndex) {
    using namespace qdr::services::airbag::datatypes;
    resource.setSomeIPKey("elementId");
    resource.setSomeIPIndexAttribute(1, {"crashSeverity", "deltaVelocityLateral", "isRollover", "absent"});
    const auto converted = [this](rttr::variant samples) {
        resource.processData("crashInfo", std::move(samples));
        return compactText(resource.workValue());
    };
    DT_crashInfo_struct sample;
    sample.isRollover = true;
    EXPECT_EQ(converted(std::vector{sample}), "{}") << "without its key it is of no index";
    sample.elementId = static_cast<CrashElement>(1);
    sample.crashSeverity = static_cast<CrashSeverity>(2);
    sample.deltaVelocityLateral = 0.5F;
    sample.isRearCrash = true;
    LogCapture log;
    EXPECT_EQ(converted(std::vector{sample}),
              R"({"crashSeverity":2,"deltaVelocityLateral":0.5,"elementId":1,"isRollover":true})");
    EXPECT_THAT(
        log.messages(5),
        ElementsAre("Variant structure is good", "DATA TYPE Data is sequential container",
                    "Populating values for key = elementId",
                    StartsWith("Getting SOMEIP property type = std::optional<"), "ENUM INSERTION SUCCESSFULL",
                    "SOMEKEY VAL is matching", "ENUM INSERTION SUCCESSFULL",
                    "Got the value type as eb::com::optional<float>",
                    "Got the value type as eb::com::optional<bool>", "absent is not found any value"));
    const auto begins = [](const char* text) { return Field(&LoggedLine::text, StartsWith(text)); };
    EXPECT_THAT(log.lines(),
                Contains(begins("void vlmProd::Resource::insertEnumValuesinJson(string, rttr::variant&):")));
    EXPECT_THAT(log.lines(),
                Contains(begins("void vlmProd::Resource::addToJsonValue(string, rttr::variant&):")).Times(3));
    DT_crashInfo_struct keyless;
    keyless.deltaVelocityLateral = 0.75F;
    EXPECT_EQ(converted(std::vector{sample, keyless}),
              R"({"crashSeverity":2,"deltaVelocityLateral":0.75,"elementId":1,"isRollover":true})")
        << "an element without its key keeps the key of the element before";
    for (const rttr::variant& odd : {rttr::variant(), rttr::variant(7), rttr::variant(std::vector<int>{1})}) {
        EXPECT_EQ(converted(odd), "{}");
    }
}

}  // namespace
