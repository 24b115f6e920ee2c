// The schemas agree with the readers of the product.
#include <tuple>

#include "config/ConfigParser.h"
#include "machine/Manifest.h"
#include "tests/support/Test.h"
#include "tools/check/Schema.h"

namespace {

using namespace vlmTest;

/// Calls `visit` with the dotted path of each part of the schema.
void walk(const Value& schema, const std::string& path,
          const std::function<void(const std::string&, const Value&)>& visit) {
    visit(path, schema);
    for (const auto& name : schema["properties"].getMemberNames()) {
        walk(schema["properties"][name], path.empty() ? name : path + "." + name, visit);
    }
}

/// A document with one value at the dotted path.
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

std::string refusal(const std::string& path, const Value& value) {
    machine::Manifest manifest;
    std::string error;
    return machine::readManifest(documentWith(path, value), manifest, error) ? "" : error;
}

void expectSameKeys(const std::string& path, const Value& part) {
    const std::string error = refusal((path.empty() ? "" : path + ".") + "noSuchKey", 1);
    const auto list = error.find("known here are ");
    ASSERT_NE(list, std::string::npos) << error;
    std::set<std::string> read;
    std::istringstream known(error.substr(list + 15));
    for (std::string name; known >> name;) {
        read.insert(name.substr(0, name.find(',')));
    }
    const auto names = part["properties"].getMemberNames();
    std::set<std::string> described(names.begin(), names.end());
    described.erase("$schema");
    EXPECT_EQ(described, read) << path;
}

void expectSameTypeAndLimits(const std::string& path, const Value& part) {
    EXPECT_TRUE(part.isMember("description")) << path;
    EXPECT_TRUE(part.isMember("default") || path == "state.socket" || path == "backend.mqtt.hosts") << path;
    EXPECT_NE(refusal(path, Value(kyo::Json::arrayValue)), "") << path;
    if (part["type"] != "integer") {
        return;
    }
    ASSERT_TRUE(part.isMember("minimum") && part.isMember("maximum")) << path;
    for (const auto& [limit, step] : {std::pair{"minimum", -1}, {"maximum", 1}}) {
        const std::string own = refusal(path, part[limit].asInt64());
        EXPECT_TRUE(own.empty() || own.find("no more than") != std::string::npos) << path << limit << own;
        EXPECT_NE(refusal(path, part[limit].asInt64() + step), "") << path << ' ' << limit;
    }
}

TEST(ManifestSchema, HasTheReaderSKeysTypesLimitsAndDefaults) {
    const Value schema = valueOf(vlmCheck::schemaText(vlmCheck::Kind::Manifest));
    machine::Manifest read;
    walk(schema, "", [&](const std::string& path, const Value& part) {
        if (part["type"] == "object") {
            expectSameKeys(path, part);
        } else if (path != "$schema") {
            expectSameTypeAndLimits(path, part);
        }
        // Each default of the schema replaces the built-in one.
        std::string error;
        EXPECT_TRUE(!part.isMember("default") ||
                    machine::readManifest(documentWith(path, part["default"]), read, error))
            << error;
    });
    const auto facts = [](const machine::Manifest& m) {
        const auto& discovery = m.someip.discovery;
        return std::tuple(m.someip.address, m.someip.network, discovery.group, discovery.port,
                          discovery.ttlSeconds, discovery.cyclicOfferMs, m.someip.receiveBufferBytes,
                          m.someip.maxSampleBytes, m.log.maxLevel, m.log.fileMaxBytes, m.backend.transport,
                          m.backend.directory.path, m.backend.mqtt.port, m.backend.mqtt.reconnectMaxSeconds);
    };
    EXPECT_EQ(facts(read), facts(machine::Manifest()));
}

/// Calls `visit` with each value of the document, which it may change.
void eachValue(Value& value, const std::string& path,
               const std::function<void(const std::string&, Value&)>& visit) {
    for (auto it = value.begin(); it != value.end(); ++it) {
        const std::string key = it.name();
        eachValue(*it, path + (key.empty() ? "[]" : "." + key), visit);
    }
    visit(path, value);
}

TEST(CollectorSchema, RefusesTheTypesAndRangesThatTheParserRefuses) {
    Value configuration = valueOf(R"({"CONFIG": [{"name": "trip", "version": "1"}],
        "CLOCK": [{"name": "minute", "duration": 60000}, {"name": "second", "duration": 1}],
        "REPORT": [{"name": "r", "application": "bench", "from": ["pos"]}],
        "COLLECT": [{"name": "pos", "serv": "GNSS", "res": "positions", "index": 1, "history": 1, "on": "minute"}],
        "COMPARE": [{"name": "speeding"}]})");
    const std::set<std::string> acceptedButOfNoUse{".REPORT []", ".COLLECT []"};
    eachValue(configuration, "", [&](const std::string& path, Value& value) {
        const Value good = value;
        for (const char* text :
             {"null", "true", "\"\"", "\"x\"", "0", "1.5", "-3000000000", "1e19", "[]", "[[]]", "{}"}) {
            value = valueOf(text);
            Value given = configuration;
            vlmProd::ConfigErrorCode code{};
            const bool accepted = vlmProd::ConfigParser().parseFromJson(given, code);
            vlmCheck::Document document;
            document.root = configuration;
            vlmCheck::Findings findings;
            vlmCheck::Schema::of(vlmCheck::Kind::Collector).check(document, findings);
            const auto faults =
                std::ranges::count(findings.list(), vlmCheck::Severity::Error, &vlmCheck::Finding::severity);
            EXPECT_TRUE((faults == 0) == accepted || acceptedButOfNoUse.contains(path + " " + text))
                << path << " " << text << (accepted ? " is accepted" : " is refused");
        }
        value = good;
    });
}

}  // namespace
