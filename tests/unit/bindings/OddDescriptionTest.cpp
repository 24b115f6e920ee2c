/// What the generator makes of a description that is valid and odd (odd/oddities.yaml), compiled and run.
#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <rttr/type>
#include <string>
#include <vector>

#include "app/JsonFields.h"
#include "collect/IngressQueue.h"
#include "qdr/services/described.h"
#include "qdr/services/oddities/datatypes.h"
#include "qdr/services/oddities/interface.h"
#include "services/adapters/VLMOddities.h"
#include "tests/support/RecordValue.h"

namespace qdr::services::oddities {
std::unique_ptr<DescribedService> makeDescribed();
}

namespace vlmProd {
namespace {

using namespace qdr::services::oddities::datatypes;
using qdr::services::FieldValue;
using testing::ElementsAre;
using testing::HasSubstr;

DT_scalars_struct fullSample() {
    DT_scalars_struct sample;
    sample.wide = Wide::yes;
    sample.selector = Selector::seven;
    sample.depth = Depth::abyss;
    sample.flag = true;
    sample.u8 = std::numeric_limits<std::uint8_t>::max();
    sample.u16 = std::numeric_limits<std::uint16_t>::max();
    sample.u32 = std::numeric_limits<std::uint32_t>::max();
    sample.u64 = std::numeric_limits<std::uint64_t>::max();
    sample.i8 = std::numeric_limits<std::int8_t>::min();
    sample.i16 = std::numeric_limits<std::int16_t>::min();
    sample.i32 = std::numeric_limits<std::int32_t>::min();
    sample.i64 = std::numeric_limits<std::int64_t>::min();
    sample.f32 = 0.5f;
    sample.f64 = -1e300;
    sample.text = "Größe \"x\"";
    sample.neverWritten = 1;
    return sample;
}

class OddDescription : public testing::Test {
  protected:
    OddDescription() {
        adapter.createResourceObject({"scalars", "switches", "levels"});
        adapter.setSomeIPKey("scalars", "selector");
    }

    /// The one record that waits, as compact text without its time.
    std::string record() {
        TextedRecord record;
        if (!IngressQueue::getInstance()->takeRecord(&record)) {
            return "none";
        }
        kyo::Json::Value value = vlmTest::valueOf(record);
        EXPECT_TRUE(value.isMember("timestamp"));
        value.removeMember("timestamp");
        EXPECT_EQ(value["serviceName"].asString(), "OdditiesProxy");
        value.removeMember("serviceName");
        return compactText(value);
    }

    VLMOddities adapter{"OdditiesProxy"};
};

TEST_F(OddDescription, EveryTypeComesBackFromTheWire) {
    const DT_scalars_struct sent = fullSample();
    std::vector<std::uint8_t> bytes;
    ac::com::encodeSamples(std::vector{sent, DT_scalars_struct{}}, bytes);
    std::vector<DT_scalars_struct> read;
    std::string error;
    ASSERT_TRUE(ac::com::decodeSamples(bytes, read, error)) << error;
    ASSERT_EQ(read.size(), 2u);
    const auto same = [&](auto member) {
        return read[0].*member == sent.*member && !(read[1].*member).has_value();
    };
    EXPECT_TRUE(same(&DT_scalars_struct::wide));
    EXPECT_TRUE(same(&DT_scalars_struct::selector));
    EXPECT_TRUE(same(&DT_scalars_struct::depth));
    EXPECT_TRUE(same(&DT_scalars_struct::flag));
    EXPECT_TRUE(same(&DT_scalars_struct::u8));
    EXPECT_TRUE(same(&DT_scalars_struct::u16));
    EXPECT_TRUE(same(&DT_scalars_struct::u32));
    EXPECT_TRUE(same(&DT_scalars_struct::u64));
    EXPECT_TRUE(same(&DT_scalars_struct::i8));
    EXPECT_TRUE(same(&DT_scalars_struct::i16));
    EXPECT_TRUE(same(&DT_scalars_struct::i32));
    EXPECT_TRUE(same(&DT_scalars_struct::i64));
    EXPECT_TRUE(same(&DT_scalars_struct::f32));
    EXPECT_TRUE(same(&DT_scalars_struct::f64));
    EXPECT_TRUE(same(&DT_scalars_struct::text));
    EXPECT_TRUE(same(&DT_scalars_struct::neverWritten));
}

TEST_F(OddDescription, DataIdsAreThePlacesInTheDescription) {
    DT_scalars_struct sample;
    sample.selector = Selector::seven;
    sample.depth = Depth::abyss;
    sample.neverWritten = 9;
    std::vector<std::uint8_t> bytes;
    ac::com::encodeSamples(std::vector{sample}, bytes);
    EXPECT_THAT(bytes,
                ElementsAre(0, 0, 0, 17, 0, 0, 0, 13, 0x20, 1, 0, 0, 0, 7, 0x10, 2, 0x80, 0, 0x00, 15, 9));
    EXPECT_EQ(qdr::services::oddities::kInterface.serviceId, 0xFFFE);
    EXPECT_EQ(qdr::services::oddities::kInterface.minorVersion, 0xFFFFFFFEu);
    EXPECT_EQ(qdr::services::oddities::kEvent_scalars.eventgroupId, 0xFFFE);
    EXPECT_EQ(qdr::services::oddities::kEvent_levels.eventgroupId, 0x0002);
}

TEST_F(OddDescription, ARecordHoldsEachTypeAsJsonHasIt) {
    adapter.callback_scalars({fullSample()});
    EXPECT_EQ(
        record(),
        R"({"depth":-32768,"f32":0.5,"f64":-1e+300,"flag":true,"i16":-32768,"i32":-2147483648,)"
        R"("i64":-9223372036854775808,"i8":-128,"resName":"scalars","selector":7,"text":"Gr\u00f6\u00dfe \"x\"",)"
        R"("u16":65535,"u32":4294967295,"u64":18446744073709551615,"u8":255,"wide":9223372036854775807})");
}

TEST_F(OddDescription, TheKeyValueSelectsWhatIsWritten) {
    DT_scalars_struct sample = fullSample();
    sample.selector = Selector::largest;
    adapter.callback_scalars({sample});
    EXPECT_EQ(record(), R"({"resName":"scalars","selector":2147483647,"text":"Gr\u00f6\u00dfe \"x\""})");
    sample.selector = Selector::none;
    adapter.callback_scalars({sample});
    EXPECT_EQ(record(), R"({"resName":"scalars","selector":0})");
    sample.selector = Selector::beyondEveryIndex;
    adapter.callback_scalars({sample});
    EXPECT_EQ(record(), R"({"resName":"scalars","selector":4294967295})");
    sample.selector.reset();
    adapter.callback_scalars({sample});
    EXPECT_EQ(record(), R"({"resName":"scalars"})");
}

TEST_F(OddDescription, NumbersThatJsonCannotHoldAreLeftOut) {
    DT_scalars_struct sample;
    sample.selector = Selector::seven;
    sample.f32 = std::numeric_limits<float>::infinity();
    sample.f64 = std::nan("");
    sample.u8 = 0;
    adapter.callback_scalars({sample});
    EXPECT_EQ(record(), R"({"resName":"scalars","selector":7,"u8":0})");
}

TEST_F(OddDescription, AnUnkeyedEventWritesWhatIsPresent) {
    DT_switches_struct first;
    first.switch1 = Switch::minus;
    first.alpha = "";
    DT_switches_struct second;
    second.zeal = 0;
    adapter.callback_switches({first, second});
    EXPECT_EQ(record(), R"({"alpha":"","resName":"switches","switch1":-1})");
    EXPECT_EQ(record(), R"({"resName":"switches","zeal":0})");
    DT_levels_struct level;
    level.level = -2;
    adapter.callback_levels({level});
    EXPECT_EQ(record(), R"({"level":-2,"resName":"levels"})");
}

TEST_F(OddDescription, ReflectionFindsEveryFieldAndEnumeratorByName) {
    registerTypes();
    const auto type = rttr::type::get_by_name("qdr::services::oddities::datatypes::DT_scalars_struct");
    std::vector<std::string> properties;
    for (const auto& property : type.get_properties()) {
        properties.push_back(property.get_name().to_string());
    }
    EXPECT_THAT(properties, ElementsAre("wide", "selector", "depth", "flag", "u8", "u16", "u32", "u64", "i8",
                                        "i16", "i32", "i64", "f32", "f64", "text", "neverWritten"));
    const DT_scalars_struct sample = fullSample();
    rttr::variant depth = type.get_property_value("depth", sample);
    const auto arguments = depth.get_type().get_template_arguments();
    ASSERT_EQ(arguments.size(), 1u);
    ASSERT_TRUE(arguments.begin()->is_enumeration());
    bool converted = false;
    EXPECT_EQ(depth.convert<std::int64_t>(&converted), -32768);
    EXPECT_TRUE(converted);
    EXPECT_EQ(arguments.begin()->get_enumeration().value_to_name(Depth::abyss), "abyss");
    const DT_scalars_struct empty;
    rttr::variant absent = type.get_property_value("depth", empty);
    absent.convert<std::int64_t>(&converted);
    EXPECT_FALSE(converted);
    EXPECT_EQ(type.get_property_value("text", sample).get_value<eb::com::optional<std::string>>(),
              sample.text);
}

class OddService : public testing::Test {
  protected:
    bool sends(const std::string& field, FieldValue value) {
        return scalars.send({{{field, std::move(value)}}});
    }

    std::unique_ptr<qdr::services::DescribedService> service = qdr::services::oddities::makeDescribed();
    qdr::services::DescribedEvent& scalars = *service->events().at(0);
};

TEST_F(OddService, IsDescribedAsData) {
    EXPECT_EQ(service->name(), "Oddities");
    EXPECT_EQ(service->registryKey(), "");
    EXPECT_EQ(service->serviceId(), 0xFFFE);
    EXPECT_EQ(service->events().size(), 3u);
    EXPECT_EQ(scalars.key(), "selector");
    EXPECT_EQ(scalars.cycleMs(), 1u);
    EXPECT_EQ(scalars.fields().size(), 16u);
    EXPECT_THAT(scalars.writers().at(2147483647), ElementsAre("text"));
    EXPECT_EQ(scalars.writers().at(7).front(), "depth");
    EXPECT_TRUE(scalars.members().empty());
    const auto& torque = scalars.fields().at(12);
    EXPECT_STREQ(torque.type, "float");
    EXPECT_STREQ(torque.unit, "N·m");
    EXPECT_TRUE(torque.hasRange);
    EXPECT_EQ(torque.minimum, -1.5);
    EXPECT_EQ(torque.maximum, 1000);
    const auto& depth = scalars.fields().at(2);
    EXPECT_STREQ(depth.type, "int16");
    EXPECT_FALSE(depth.hasRange);
    ASSERT_EQ(depth.enumerators.size(), 3u);
    EXPECT_STREQ(depth.enumerators[0].name, "abyss");
    EXPECT_EQ(depth.enumerators[0].value, -32768);
    EXPECT_THAT(service->events().at(1)->members(), ElementsAre("switch1", "zeal", "alpha"));
}

TEST_F(OddService, TakesEveryValueThatFitsAField) {
    EXPECT_TRUE(sends("u8", std::int64_t{255})) << scalars.error();
    EXPECT_TRUE(sends("u8", 255.0)) << scalars.error();
    EXPECT_TRUE(sends("u8", true)) << scalars.error();
    EXPECT_TRUE(sends("u64", std::numeric_limits<std::uint64_t>::max())) << scalars.error();
    EXPECT_TRUE(sends("i64", std::numeric_limits<std::int64_t>::min())) << scalars.error();
    EXPECT_TRUE(sends("i8", std::int64_t{-128})) << scalars.error();
    EXPECT_TRUE(sends("flag", std::uint64_t{1})) << scalars.error();
    EXPECT_TRUE(sends("depth", std::string("abyss"))) << scalars.error();
    EXPECT_TRUE(sends("depth", std::int64_t{-5})) << scalars.error();
    EXPECT_TRUE(sends("f32", std::int64_t{-5})) << scalars.error();
    EXPECT_TRUE(sends("text", std::string())) << scalars.error();
    EXPECT_EQ(scalars.error(), "");
}

TEST_F(OddService, RefusesWhatDoesNotFitAndSaysWhy) {
    const std::vector<std::pair<std::string, FieldValue>> wrong{
        {"u8", std::int64_t{256}},
        {"u8", std::int64_t{-1}},
        {"u8", 0.5},
        {"u8", std::nan("")},
        {"u8", std::string("255")},
        {"i8", std::int64_t{128}},
        {"i8", std::int64_t{-129}},
        {"i64", std::numeric_limits<std::uint64_t>::max()},
        {"flag", std::int64_t{2}},
        {"depth", std::string("Abyss")},
        {"depth", std::int64_t{32768}},
        {"f64", std::string("1")},
        {"f64", true},
        {"text", std::int64_t{1}},
    };
    for (const auto& [field, value] : wrong) {
        EXPECT_FALSE(sends(field, value)) << field;
        EXPECT_THAT(scalars.error(), HasSubstr("scalars: the value of " + field + " does not fit ")) << field;
    }
    EXPECT_FALSE(sends("unknown", true));
    EXPECT_EQ(scalars.error(), "scalars has no field unknown");
    EXPECT_TRUE(sends("flag", true));
    EXPECT_EQ(scalars.error(), "");
}

}  // namespace
}  // namespace vlmProd
