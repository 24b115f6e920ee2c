/// All described services, reached as data and by reflection, against the law.
#include "qdr/services/described.h"

#include <gmock/gmock.h>

#include <map>
#include <rttr/type>
#include <set>
#include <string>
#include <vector>

#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/registration.h"
#include "services/Resource.h"
#include "services/adapters/RegisteredAdapters.h"
#include "tests/unit/bindings/Law.h"

namespace {

using namespace qdr::services;
using vlmTest::LawfulEvent;
using vlmTest::lawfulEvents;
using vlmTest::readLaw;

TEST(DescribedServices, EveryEventIsThereWithItsKeyWritersAndMembers) {
    std::map<std::string, std::unique_ptr<DescribedService>> services;
    std::size_t events = 0;
    for (const std::string& name : describedServiceNames()) {
        services["VLM" + name] = makeDescribedService(name);
        events += services["VLM" + name]->events().size();
    }
    const auto law = lawfulEvents();
    EXPECT_EQ(events, law.size());
    for (const LawfulEvent& lawful : law) {
        SCOPED_TRACE(lawful.adapter + " " + lawful.event);
        const auto service = services.find(lawful.adapter);
        ASSERT_NE(service, services.end());
        EXPECT_EQ(service->second->registryKey(), lawful.registryKey == "-" ? "" : lawful.registryKey);
        const auto all = service->second->events();
        const auto event = std::find_if(all.begin(), all.end(), [&](const DescribedEvent* other) {
            return other->name() == lawful.event;
        });
        ASSERT_NE(event, all.end());
        EXPECT_EQ((*event)->key(), lawful.key == "-" ? "" : lawful.key);
        EXPECT_EQ((*event)->members(), lawful.members);
        std::vector<int> writers;
        std::set<std::string> added;
        for (const auto& [value, fields] : (*event)->writers()) {
            writers.push_back(value);
            added.insert(fields.begin(), fields.end());
        }
        EXPECT_EQ(writers, lawful.writers);
        EXPECT_EQ(added.size(), lawful.memberCount);
    }
    EXPECT_EQ(makeDescribedService("Unheard"), nullptr);
}

TEST(DescribedServices, AdaptersAreMadeInTheOrderOfTheRegistry) {
    std::vector<std::string> made;
    for (const auto& [name, adapter] : vlmProd::makeRegisteredAdapters()) {
        made.push_back(name);
        EXPECT_NE(adapter, nullptr) << name;
    }
    std::vector<std::string> lawful;
    for (const auto& row : readLaw("registry")) {
        lawful.push_back(row.at(1));
    }
    EXPECT_EQ(made, lawful);
}

/// What RTTR calls the type of an optional, from the type in the description.
bool isOptionalOf(const rttr::type& type, const FieldInfo& field) {
    const auto arguments = type.get_template_arguments();
    if (arguments.size() == 0) {
        return false;
    }
    const rttr::type inner = *arguments.begin();
    if (!field.enumerators.empty()) {
        return inner.is_enumeration() &&
               inner.get_enumeration().get_names().size() == field.enumerators.size();
    }
    static const std::map<std::string, rttr::type> types{{"bool", rttr::type::get<bool>()},
                                                         {"uint8", rttr::type::get<std::uint8_t>()},
                                                         {"uint16", rttr::type::get<std::uint16_t>()},
                                                         {"uint32", rttr::type::get<std::uint32_t>()},
                                                         {"uint64", rttr::type::get<std::uint64_t>()},
                                                         {"int8", rttr::type::get<std::int8_t>()},
                                                         {"int16", rttr::type::get<std::int16_t>()},
                                                         {"int32", rttr::type::get<std::int32_t>()},
                                                         {"int64", rttr::type::get<std::int64_t>()},
                                                         {"float", rttr::type::get<float>()},
                                                         {"double", rttr::type::get<double>()},
                                                         {"string", rttr::type::get<std::string>()}};
    return inner == types.at(field.type);
}

TEST(DescribedServices, EveryDataTypeIsRegisteredWithAllItsFields) {
    registerAllTypes();
    registerAllTypes();
    for (const std::string& name : describedServiceNames()) {
        const auto service = makeDescribedService(name);
        std::string nameSpace = name;
        for (char& letter : nameSpace) {
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        }
        for (const DescribedEvent* event : service->events()) {
            const std::string typeName =
                "qdr::services::" + nameSpace + "::datatypes::DT_" + event->name() + "_struct";
            SCOPED_TRACE(typeName);
            const auto type = rttr::type::get_by_name(typeName);
            ASSERT_TRUE(type.is_valid());
            const auto properties = type.get_properties();
            ASSERT_EQ(properties.size(), event->fields().size());
            std::size_t place = 0;
            for (const auto& property : properties) {
                const FieldInfo& field = event->fields()[place++];
                EXPECT_EQ(property.get_name(), field.name);
                EXPECT_TRUE(isOptionalOf(property.get_type(), field)) << field.name;
            }
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
