// The manifest's schema and the platform's reader say the same in two places; here they are held together.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>
#include <string>

#include "machine/Manifest.h"
#include "tools/check/Schema.h"

namespace {

using kyo::Json::Value;
using vlmCheck::Kind;

Value schemaOf(Kind kind) {
    Value schema;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(vlmCheck::schemaText(kind), schema)) << reader.getFormattedErrorMessages();
    return schema;
}

/// Calls `visit` with the dotted path of each part of the schema's tree.
void walk(const Value& schema, const std::string& path,
          const std::function<void(const std::string&, const Value&)>& visit) {
    visit(path, schema);
    for (const auto& name : schema["properties"].getMemberNames()) {
        walk(schema["properties"][name], path.empty() ? name : path + "." + name, visit);
    }
}

/// A document with that one value at the dotted path.
Value documentWith(const std::string& path, const Value& value) {
    Value document(kyo::Json::objectValue);
    Value* at = &document;
    std::istringstream keys(path);
    for (std::string key; std::getline(keys, key, '.');) {
        at = &(*at)[key];
    }
    *at = value;
    return document;
}

std::string refusal(const Value& document) {
    machine::Manifest manifest;
    std::string error;
    return machine::readManifest(document, manifest, error) ? "" : error;
}

TEST(ManifestSchema, knows_the_same_keys_as_the_reader) {
    walk(schemaOf(Kind::Manifest), "", [](const std::string& path, const Value& part) {
        if (part["type"] != "object") {
            return;
        }
        const std::string odd = (path.empty() ? "" : path + ".") + "noSuchKey";
        const std::string error = refusal(documentWith(odd, 1));
        const auto list = error.find("known here are ");
        ASSERT_NE(list, std::string::npos) << error;
        std::set<std::string> read;
        std::istringstream names(error.substr(list + 15));
        for (std::string name; names >> name;) {
            read.insert(name.substr(0, name.find(',')));
        }
        std::set<std::string> described;
        for (const auto& name : part["properties"].getMemberNames()) {
            if (name[0] != '$') {
                described.insert(name);
            }
        }
        EXPECT_EQ(described, read) << path;
    });
}

TEST(ManifestSchema, has_the_reader_s_defaults_limits_and_types) {
    walk(schemaOf(Kind::Manifest), "", [](const std::string& path, const Value& part) {
        if (part["type"] == "object" || path == "$schema") {
            return;
        }
        EXPECT_TRUE(part.isMember("description")) << path;
        if (path != "state.socket") {
            ASSERT_TRUE(part.isMember("default")) << path;
            EXPECT_EQ(refusal(documentWith(path, part["default"])), "") << path;
        }
        EXPECT_NE(refusal(documentWith(path, Value(kyo::Json::arrayValue))), "") << path;
        if (part["type"] != "integer") {
            return;
        }
        ASSERT_TRUE(part.isMember("minimum") && part.isMember("maximum")) << path;
        for (const char* limit : {"minimum", "maximum"}) {
            const Value at = part[limit].asInt64();
            const Value beyond = part[limit].asInt64() + (std::string(limit) == "minimum" ? -1 : 1);
            const std::string own = refusal(documentWith(path, at));
            EXPECT_TRUE(own.empty() || own.find("no more than") != std::string::npos)
                << path << ' ' << limit << own;
            EXPECT_NE(refusal(documentWith(path, beyond)), "") << path << ' ' << limit;
        }
    });
}

TEST(ManifestSchema, defaults_are_those_of_a_machine_without_a_manifest) {
    const machine::Manifest builtIn;
    machine::Manifest read;
    // Values that differ everywhere would be kept if the schema's default were not written over them.
    walk(schemaOf(Kind::Manifest), "", [&](const std::string& path, const Value& part) {
        if (part.isMember("default")) {
            std::string error;
            ASSERT_TRUE(machine::readManifest(documentWith(path, part["default"]), read, error)) << error;
        }
    });
    EXPECT_EQ(read.someip.address, builtIn.someip.address);
    EXPECT_EQ(read.someip.network, builtIn.someip.network);
    EXPECT_EQ(read.someip.discovery.group, builtIn.someip.discovery.group);
    EXPECT_EQ(read.someip.discovery.port, builtIn.someip.discovery.port);
    EXPECT_EQ(read.someip.discovery.ttlSeconds, builtIn.someip.discovery.ttlSeconds);
    EXPECT_EQ(read.someip.discovery.cyclicOfferMs, builtIn.someip.discovery.cyclicOfferMs);
    EXPECT_EQ(read.someip.receiveBufferBytes, builtIn.someip.receiveBufferBytes);
    EXPECT_EQ(read.someip.maxSampleBytes, builtIn.someip.maxSampleBytes);
    EXPECT_EQ(read.log.maxLevel, builtIn.log.maxLevel);
    EXPECT_EQ(read.log.fileMaxBytes, builtIn.log.fileMaxBytes);
    EXPECT_EQ(read.backend.transport, builtIn.backend.transport);
    EXPECT_EQ(read.backend.directory.path, builtIn.backend.directory.path);
    EXPECT_EQ(read.backend.mqtt.port, builtIn.backend.mqtt.port);
    EXPECT_EQ(read.backend.mqtt.reconnectMaxSeconds, builtIn.backend.mqtt.reconnectMaxSeconds);
}

}  // namespace
