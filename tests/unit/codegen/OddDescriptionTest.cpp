/// What the generator makes of a description that is valid and odd (odd/oddities.yaml), compiled and run.
#include <cmath>
#include <limits>

#include "collect/IngressQueue.h"
#include "qdr/services/described.h"
#include "qdr/services/oddities/datatypes.h"
#include "qdr/services/oddities/interface.h"
#include "services/adapters/RecordWriter.h"
#include "services/adapters/VLMOddities.h"
#include "tests/support/Test.h"

namespace qdr::services::oddities {
std::unique_ptr<DescribedService> makeDescribed();
}

namespace vlmProd {
namespace {

using namespace qdr::services::oddities::datatypes;
using qdr::services::FieldValue;
using namespace vlmTest;

DT_scalars_struct fullSample() {
    return {Wide::yes,  Selector::seven, Depth::abyss,  true,      UINT8_MAX, UINT16_MAX,
            UINT32_MAX, UINT64_MAX,      INT8_MIN,      INT16_MIN, INT32_MIN, INT64_MIN,
            0.5f,       -1e300,          "Größe \"x\"", 1};
}

struct OddDescription : Test {
    OddDescription() {
        adapter.createResourceObject({"scalars"});
        adapter.setSomeIPKey("scalars", "selector");
    }

    /// The one record that waits, as compact text without its time.
    std::string record() {
        Record record;
        if (!IngressQueue::getInstance()->takeRecord(&record)) {
            return "none";
        }
        kyo::Json::Value value = valueOf(record.text);
        EXPECT_TRUE(value.isMember("timestamp"));
        value.removeMember("timestamp");
        EXPECT_EQ(value["serviceName"].asString(), "OdditiesProxy");
        value.removeMember("serviceName");
        return compactText(value);
    }

    VLMOddities adapter{"OdditiesProxy"};
    const std::unique_ptr<qdr::services::DescribedService> service = qdr::services::oddities::makeDescribed();
};

TEST_F(OddDescription, EveryTypeComesThroughTheWireIntoARecordAsJsonHasIt) {
    std::vector<std::uint8_t> bytes;
    someip::encodeSamples(std::vector{fullSample(), DT_scalars_struct{}}, bytes);
    std::vector<DT_scalars_struct> read;
    std::string error;
    ASSERT_TRUE(someip::decodeSamples(bytes, read, error)) << error;
    ASSERT_EQ(read.size(), 2u);
    adapter.callback_scalars(read);
    EXPECT_EQ(
        record(),
        R"({"depth":-32768,"f32":0.5,"f64":-1e+300,"flag":true,"i16":-32768,"i32":-2147483648,)"
        R"("i64":-9223372036854775808,"i8":-128,"resName":"scalars","selector":7,"text":"Gr\u00f6\u00dfe \"x\"",)"
        R"("u16":65535,"u32":4294967295,"u64":18446744073709551615,"u8":255,"wide":9223372036854775807})");
    EXPECT_EQ(record(), R"({"resName":"scalars"})");

    std::vector<qdr::services::DecodedSample> decoded;
    someip::DecodeReport report;
    ASSERT_TRUE(service->events().at(0)->decode(bytes, decoded, report)) << report.error;
    using Signed = std::int64_t;
    using Unsigned = std::uint64_t;
    EXPECT_THAT(decoded, ElementsAre(ElementsAre(Signed{INT64_MAX}, Unsigned{7}, Signed{INT16_MIN}, true,
                                                 Unsigned{UINT8_MAX}, Unsigned{UINT16_MAX},
                                                 Unsigned{UINT32_MAX}, Unsigned{UINT64_MAX}, Signed{INT8_MIN},
                                                 Signed{INT16_MIN}, Signed{INT32_MIN}, Signed{INT64_MIN}, 0.5,
                                                 -1e300, fullSample().text.value(), Unsigned{1}),
                                     Each(std::nullopt)));
}

TEST_F(OddDescription, DataIdsAreThePlacesInTheDescription) {
    DT_scalars_struct sample;
    sample.selector = Selector::seven;
    sample.depth = Depth::abyss;
    sample.neverWritten = 9;
    std::vector<std::uint8_t> bytes;
    someip::encodeSamples(std::vector{sample}, bytes);
    EXPECT_THAT(bytes,
                ElementsAre(0, 0, 0, 17, 0, 0, 0, 13, 0x20, 1, 0, 0, 0, 7, 0x10, 2, 0x80, 0, 0x00, 15, 9));
    EXPECT_EQ(qdr::services::oddities::kInterface.minorVersion, 0xFFFFFFFEu);
    EXPECT_EQ(qdr::services::oddities::kEvent_scalars.eventgroupId, 0xFFFE);
    EXPECT_EQ(qdr::services::oddities::kEvent_levels.eventgroupId, 0x0002);
}

TEST_F(OddDescription, TheKeyValueSelectsWhatIsWrittenButForNumbersThatJsonCannotHold) {
    DT_scalars_struct odd;
    odd.selector = Selector::seven;
    odd.f32 = std::numeric_limits<float>::infinity();
    odd.f64 = std::nan("");
    odd.u8 = 0;
    const auto before = notFiniteMembers().value();
    adapter.callback_scalars({odd});
    EXPECT_EQ(record(), R"({"resName":"scalars","selector":7,"u8":0})");
    EXPECT_EQ(notFiniteMembers().value(), before + 2);
    DT_scalars_struct sample = fullSample();
    const std::pair<eb::com::optional<Selector>, const char*> cases[] = {
        {Selector::largest, R"({"resName":"scalars","selector":2147483647,"text":"Gr\u00f6\u00dfe \"x\""})"},
        {Selector::none, R"({"resName":"scalars","selector":0})"},
        {Selector::beyondEveryIndex, R"({"resName":"scalars","selector":4294967295})"},
        {{}, R"({"resName":"scalars"})"},
    };
    for (const auto& [selector, expected] : cases) {
        sample.selector = selector;
        adapter.callback_scalars({sample});
        EXPECT_EQ(record(), expected);
    }
}

TEST_F(OddDescription, IsDescribedAsDataAndTakesWhatFitsAField) {
    ASSERT_EQ(service->events().size(), 3u);
    auto& scalars = *service->events().at(0);
    EXPECT_EQ(scalars.key(), "selector");
    EXPECT_THAT(scalars.writers().at(2147483647), ElementsAre("text"));
    EXPECT_EQ(scalars.writers().at(7).front(), "depth");
    EXPECT_THAT(service->events().at(1)->members(), ElementsAre("switch1", "zeal", "alpha"));
    const auto& torque = scalars.fields().at(12);
    EXPECT_STREQ(torque.unit, "N·m");
    EXPECT_EQ(std::pair(torque.minimum, torque.maximum), std::pair(-1.5, 1000.0));

    const std::tuple<const char*, FieldValue, bool> cases[] = {
        {"u8", std::int64_t{255}, true},
        {"u8", std::int64_t{256}, false},
        {"u8", std::int64_t{-1}, false},
        {"u8", 0.5, false},
        {"u8", std::nan(""), false},
        {"u64", std::uint64_t{UINT64_MAX}, true},
        {"i64", std::uint64_t{UINT64_MAX}, false},
        {"flag", std::int64_t{2}, false},
        {"depth", std::string("abyss"), true},
        {"depth", std::string("Abyss"), false},
        {"depth", std::int64_t{32768}, false},
        {"f64", std::string("1"), false},
        {"text", std::int64_t{1}, false},
    };
    for (const auto& [field, value, fits] : cases) {
        EXPECT_EQ(scalars.send({{{field, value}}}), fits) << field;
        const std::string refusal = std::string("scalars: the value of ") + field + " does not fit ";
        EXPECT_THAT(scalars.error(), StartsWith(fits ? "" : refusal));
        EXPECT_EQ(scalars.error().empty(), fits);
    }
    EXPECT_FALSE(scalars.send({{{"unknown", true}}}));
    EXPECT_EQ(scalars.error(), "scalars has no field unknown");
}

}  // namespace
}  // namespace vlmProd
