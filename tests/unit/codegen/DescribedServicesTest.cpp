/// The data types of all services, through reflection.
#include <gmock/gmock.h>

#include <rttr/type>
#include <string>
#include <vector>

#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/registration.h"
#include "services/Resource.h"
#include "tests/unit/codegen/Required.h"

namespace {

using namespace qdr::services;

TEST(DescribedServices, EveryDataTypeIsRegisteredWithItsFields) {
    registerAllTypes();
    registerAllTypes();
    for (const auto& required : vlmTest::requiredEvents()) {
        const std::string name =
            "qdr::services::" + required.nameSpace + "::datatypes::DT_" + required.event + "_struct";
        SCOPED_TRACE(name);
        const auto type = rttr::type::get_by_name(name);
        ASSERT_TRUE(type.is_valid());
        std::vector<std::string> properties;
        for (const auto& property : type.get_properties()) {
            properties.push_back(property.get_name().to_string());
        }
        if (required.key == "-") {
            EXPECT_EQ(properties, required.members);
        } else {
            EXPECT_THAT(properties, testing::Contains(required.key));
            EXPECT_GT(properties.size(), required.memberCount);
        }
    }
}

TEST(DescribedServices, TheGenericConversionReadsGeneratedTypes) {
    gnss::datatypes::DT_positions_struct sample;
    sample.type = gnss::datatypes::PositionType::fused;
    sample.latitude = 48.25;
    sample.latitudeValueType = gnss::datatypes::ValueType::substituted;
    vlmProd::Resource resource("positions");
    resource.setSomeIPKey("type");
    resource.setSomeIPIndexAttribute(1, {"latitude", "latitudeValueType", "longitude"});
    resource.processData("positions", rttr::variant(std::vector{sample}));
    const auto work = resource.workValue();
    EXPECT_EQ(work["type"].asUInt(), 1u);
    EXPECT_EQ(work["latitude"].asDouble(), 48.25);
    EXPECT_EQ(work["latitudeValueType"].asUInt(), 4u);
    EXPECT_FALSE(work.isMember("longitude"));
}

}  // namespace
