#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/check/Checks.h"
#include "tools/check/Suggest.h"

namespace {

using namespace vlmCheck;
using testing::HasSubstr;

Document documentOf(const std::string& text) {
    Document document;
    document.name = "test.json";
    document.text = text;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, document.root, false)) << reader.getFormattedErrorMessages() << text;
    return document;
}

const char* const catalogText = R"({"meta": {"vlmVersion": "v1"}, "services": {
  "GNSS": {"positions": {"loadFactor": 1, "serviceId": "4353", "someipKeyProperty": "type", "instances": {
      "1": [{"property": "latitude", "signal": "GNSS.latitude", "privacy_group": 2}],
      "2": [{"property": "longitude", "signal": "GNSS.longitude", "privacy_group": 2}]}}},
  "RouterBasedConsumption": {"status": {"loadFactor": 1, "serviceId": "4390", "someipKeyProperty": "statusType",
      "instances": {"0": []}}}}})";

const char* const collectorText = R"({
  "CONFIG": [{"name": "trip", "version": "1"}],
  "CLOCK": [{"name": "minute", "duration": 60000}],
  "REPORT": [{"name": "r", "application": "bench", "from": ["pos"]}],
  "COLLECT": [{"name": "pos", "serv": "GNSS", "res": "positions", "index": 1, "history": 1000, "on": "minute"}]})";

/// One change to a good document and the finding that it must give.
struct Case {
    const char* name;
    std::string find;     ///< part of the good text ...
    std::string replace;  ///< ... and what stands there instead
    Severity severity;
    std::string path;
    std::string reason;
    std::string suggestion;
};

std::string changed(std::string text, const Case& test) {
    const auto at = text.find(test.find);
    EXPECT_NE(at, std::string::npos) << test.find;
    return at == std::string::npos ? text : text.replace(at, test.find.size(), test.replace);
}

void expectFinding(const std::vector<Finding>& findings, const Case& test) {
    std::string all;
    for (const auto& finding : findings) {
        const bool reasonFits = finding.reason.find(test.reason) != std::string::npos;
        const bool suggestionFits = finding.suggestion.find(test.suggestion) != std::string::npos;
        if (finding.severity == test.severity && finding.path == test.path && reasonFits && suggestionFits) {
            return;
        }
        all += finding.path + ": " + finding.reason + " [" + finding.suggestion + "]\n";
    }
    ADD_FAILURE() << test.name << ": no finding at " << test.path << " saying \"" << test.reason << "\" ["
                  << test.suggestion << "] among\n"
                  << all;
}

std::vector<Finding> check(const std::string& text, Kind kind) {
    static const Document catalogDocument = documentOf(catalogText);
    static const CatalogView catalog(catalogDocument);
    const Document document = documentOf(text);
    return checkDocument(document, kind, &catalog);
}

constexpr auto E = Severity::Error;
constexpr auto W = Severity::Warning;

TEST(CheckCollectorConfiguration, a_good_one_gives_no_finding) {
    EXPECT_TRUE(check(collectorText, Kind::Collector).empty());
}

TEST(CheckCollectorConfiguration, each_fault_is_found_with_path_reason_and_suggestion) {
    const std::vector<Case> cases = {
        {"no clock", R"("CLOCK")", R"("CLOK")", E, "$", "\"CLOCK\" is missing",
         "rename \"CLOK\" to \"CLOCK\""},
        {"ignored block", R"("CONFIG")", R"("CONFIGS")", W, "$.CONFIGS", "is ignored",
         "did you mean \"CONFIG\"?"},
        {"no configuration name", R"("CONFIG")", R"("CONFIGS")", W, "$", "\"CONFIG\" is missing", ""},
        {"empty version", R"("version": "1")", R"("version": "")", W, "$.CONFIG[0]", "no version", ""},
        {"nameless clock", R"("name": "minute", )", "", E, "$.CLOCK[0]", "\"name\" is missing", ""},
        {"short clock", "60000", "59999", W, "$.CLOCK[0].duration",
         "below a minute: the clock runs with 60000", "60000"},
        {"two clocks", R"("CLOCK": [)", R"("CLOCK": [{"name": "x"}, )", W, "$.CLOCK[1]",
         "only the first clock ticks", ""},
        {"clock out of range", "60000", "3000000000", E, "$.CLOCK[0].duration", "is 3000000000", ""},
        {"array for a block", R"([{"name": "minute", "duration": 60000}])", R"({"name": "minute"})", E,
         "$.CLOCK", "is an object; an array is expected", ""},
        {"no reports", R"([{"name": "r", "application": "bench", "from": ["pos"]}])", "[]", E, "$.REPORT",
         "is empty", ""},
        {"nameless report", R"("name": "r")", R"("name": "")", E, "$.REPORT[0].name", "is empty", ""},
        {"same report twice", R"("REPORT": [)", R"("REPORT": [{"name": "r", "from": ["pos"]}, )", E,
         "$.REPORT[1].name", "a report named \"r\" stands above already", ""},
        {"unknown collector in a report", R"(["pos"])", R"(["pos", "poss"])", E, "$.REPORT[0].from[1]",
         "no collector is named \"poss\"", "did you mean \"pos\"?"},
        {"collector named twice", R"(["pos"])", R"(["pos", "pos"])", W, "$.REPORT[0].from[1]", "named twice",
         ""},
        {"report of nothing", R"(, "from": ["pos"])", "", W, "$.REPORT[0]", "gathers nothing", "\"from\""},
        {"collector that no report gathers", R"(["pos"])", "[]", W, "$.COLLECT[0]",
         "no report gathers collector \"pos\"", "\"from\""},
        {"same collector name twice", R"("COLLECT": [)",
         R"("COLLECT": [{"name": "pos", "serv": "GNSS", "res": "positions", "index": 2}, )", E,
         "$.COLLECT[1].name", "stands at $.COLLECT[0] already", ""},
        {"two collectors for one instance", R"("COLLECT": [)",
         R"("COLLECT": [{"name": "b", "serv": "GNSS", "res": "positions", "index": 1}, )", E, "$.COLLECT[1]",
         "belongs to collector \"b\" already: this one stays empty", ""},
        {"unknown service", R"("serv": "GNSS")", R"("serv": "GNS")", E, "$.COLLECT[0].serv",
         "no service \"GNS\"", "did you mean \"GNSS\"?"},
        {"proxy's name", R"("serv": "GNSS")", R"("serv": "GNSSProxy")", E, "$.COLLECT[0].serv", "no service",
         "write \"GNSS\""},
        {"name that only the registry misspells", R"("serv": "GNSS")", R"("serv": "RouteBasedConsumption")",
         E, "$.COLLECT[0].serv", "no service", "did you mean \"RouterBasedConsumption\"?"},
        {"unknown resource", "positions", "velocities", E, "$.COLLECT[0].res", "no resource \"velocities\"",
         "GNSS has: positions"},
        {"unknown instance", R"("index": 1)", R"("index": 3)", E, "$.COLLECT[0].index", "no instance 3",
         "by \"type\": 1, 2"},
        {"text for an index", R"("index": 1)", R"("index": "1")", E, "$.COLLECT[0].index",
         "is a text (\"1\")", ""},
        {"index beyond int", R"("index": 1)", R"("index": 4294967296)", E, "$.COLLECT[0].index", "4294967296",
         ""},
        {"no index", R"("index": 1)", R"("indx": 1)", E, "$.COLLECT[0]", "\"index\" is missing",
         "rename \"indx\""},
        {"fraction for an index", R"("index": 1)", R"("index": 1.75)", W, "$.COLLECT[0].index",
         "is read as 1", ""},
        {"number for a name", R"("name": "r")", R"("name": 7)", W, "$.REPORT[0].name",
         "is read as the text \"7\"", ""},
        {"object for a name", R"("name": "pos")", R"("name": {})", E, "$.COLLECT[0].name",
         "is an object; a text is expected", ""},
        {"unknown driver", R"("on": "minute")", R"("on": "minte")", W, "$.COLLECT[0].on",
         "the clock drives this collector", "did you mean \"minute\"?"},
        {"negative history", R"("history": 1000)", R"("history": -1)", W, "$.COLLECT[0].history",
         "is negative", ""},
        {"history beyond 64 bits", R"("history": 1000)", R"("history": 18446744073709551615)", E,
         "$.COLLECT[0].history", "out of range", ""},
        {"compare named as the clock", R"("COLLECT": [)", R"("COMPARE": [{"name": "minute"}], "COLLECT": [)",
         W, "$.COMPARE[0].name", "names an earlier CLOCK or COMPARE element", ""},
    };
    for (const auto& test : cases) {
        expectFinding(check(changed(collectorText, test), Kind::Collector), test);
    }
}

TEST(CheckCollectorConfiguration, a_name_of_a_compare_drives_a_collector) {
    const auto findings =
        check(changed(collectorText, {"", R"("on": "minute")", R"("on": "fast")", E, "", "", ""})
                  .insert(1, R"("COMPARE": [{"name": "fast"}],)"),
              Kind::Collector);
    EXPECT_TRUE(findings.empty());
}

TEST(CheckCatalog, a_good_one_gives_no_finding_and_each_fault_is_found) {
    EXPECT_TRUE(check(catalogText, Kind::Catalog).empty());
    const std::string positions = "$.services.GNSS.positions";
    const std::vector<Case> cases = {
        {"no version", R"("vlmVersion": "v1")", R"("vlmVersion": "")", E, "$.meta.vlmVersion", "is empty",
         "server name"},
        {"no meta", R"("meta")", R"("mata")", E, "$", "\"meta\" is missing", "rename \"mata\""},
        {"id that is no number", R"("2": [)", R"("two": [)", E, positions + ".instances.two",
         "no instance id", ""},
        {"id beyond int", R"("2": [)", R"("4000000000": [)", E, positions + ".instances.4000000000",
         "does not fit", ""},
        {"ids that become one", R"("2": [)", R"("01": [)", E, positions + ".instances.1", "both read as 1",
         ""},
        {"id with a zero before it", R"("2": [)", R"("02": [)", W, positions + ".instances.02", "read as 2",
         "write \"2\""},
        {"no key property", R"("someipKeyProperty": "type", )", "", E, positions,
         "\"someipKeyProperty\" is missing", ""},
        {"instance that is no list", R"("0": [])", R"("0": {})", E,
         "$.services.RouterBasedConsumption.status.instances.0", "is an object; an array is expected", ""},
        {"two services of one id", "4390", "4353", W, "$.services.RouterBasedConsumption.status.serviceId",
         "belongs to service \"GNSS\" already", ""},
        {"proxy's name", R"("GNSS": {)", R"("GNSSProxy": {)", W, "$.services.GNSSProxy", "ends in \"Proxy\"",
         "\"GNSS\""},
        {"privacy group as text", R"("privacy_group": 2)", R"("privacy_group": "2")", E,
         positions + ".instances.1[0].privacy_group", "is a text", ""},
    };
    for (const auto& test : cases) {
        expectFinding(check(changed(catalogText, test), Kind::Catalog), test);
    }
}

TEST(CheckApplicationConfiguration, each_fault_is_found) {
    const char* const good = R"({"OfferedDataTypes": ["A", "B"]})";
    EXPECT_TRUE(check(good, Kind::Application).empty());
    const std::vector<Case> cases = {
        {"misspelt", "OfferedDataTypes", "OfferdDataTypes", E, "$", "is missing",
         "rename \"OfferdDataTypes\""},
        {"no array", R"(["A", "B"])", R"("A")", E, "$.OfferedDataTypes",
         "is a text (\"A\"); an array is expected", ""},
        {"empty", R"(["A", "B"])", "[]", W, "$.OfferedDataTypes", "is empty", ""},
        {"object in it", R"("B")", "{}", E, "$.OfferedDataTypes[1]", "is an object; a text is expected", ""},
        {"twice", R"("B")", R"("A")", W, "$.OfferedDataTypes[1]", "offered twice", ""},
    };
    for (const auto& test : cases) {
        expectFinding(check(changed(good, test), Kind::Application), test);
    }
}

TEST(CheckManifest, each_fault_is_found_where_it_stands) {
    const char* const good =
        R"({"someip": {"address": "10.0.0.1", "network": "10.0.0.0/8", "discovery": {"port": 30490}},
            "backend": {"transport": "mqtt", "mqtt": {"host": "broker", "tls": true, "caFile": "/dev/null"}}})";
    EXPECT_TRUE(check(good, Kind::Manifest).empty());
    const std::vector<Case> cases = {
        {"misspelt", R"("address")", R"("adress")", E, "$.someip.adress", "is not known",
         "did you mean \"address\"?"},
        {"number as text", "30490", R"("30490")", E, "$.someip.discovery.port", "is a text", ""},
        {"port out of range", "30490", "70000", E, "$.someip.discovery.port", "from 1 to 65535", ""},
        {"text as number", R"("broker")", "5", E, "$.backend.mqtt.host",
         "is a number (5); a text is expected", ""},
        {"unknown transport", R"("transport": "mqtt")", R"("transport": "mqt")", E, "$.backend.transport",
         "one of \"directory\", \"mqtt\"", "did you mean \"mqtt\"?"},
        {"what only the reader knows", "10.0.0.1", "10.0.0.999", E, "$.someip.address",
         "an IPv4 address is expected", ""},
        {"certificate without its key", R"("tls": true)", R"("tls": true, "certFile": "/dev/null")", E,
         "$.backend.mqtt.keyFile", "belong together", ""},
        {"certificate that is not there", "/dev/null", "/nowhere/ca.pem", W, "$.backend.mqtt.caFile",
         "does not exist", ""},
        {"transport left to the default", R"("transport": "mqtt", )", "", W, "$.backend",
         "\"directory\" is used", "mqtt"},
    };
    for (const auto& test : cases) {
        expectFinding(check(changed(good, test), Kind::Manifest), test);
    }
}

TEST(CheckKind, is_guessed_from_the_members_even_when_one_is_misspelt) {
    EXPECT_EQ(guessKind(documentOf(collectorText)), Kind::Collector);
    EXPECT_EQ(guessKind(documentOf(catalogText)), Kind::Catalog);
    EXPECT_EQ(guessKind(documentOf(R"({"OfferdDataTypes": []})")), Kind::Application);
    EXPECT_EQ(guessKind(documentOf(R"({"backend": {}})")), Kind::Manifest);
    EXPECT_EQ(guessKind(documentOf(R"({"temperature": 5})")), std::nullopt);
    EXPECT_EQ(guessKind(documentOf("[1]")), std::nullopt);
}

TEST(CheckSuggestion, is_the_nearest_name_or_none) {
    const std::vector<std::string> names = {"positions", "positionsQuality", "doors"};
    EXPECT_EQ(nearest("postions", names), "positions");
    EXPECT_EQ(nearest("Positions", names), "positions");
    EXPECT_EQ(nearest("psoitions", names), "positions");
    EXPECT_EQ(nearest("door", names), "doors");
    EXPECT_EQ(nearest("doorsProxy", names), "doors");
    EXPECT_EQ(nearest("x", names), "");
    EXPECT_EQ(nearest("velocities", names), "");
    EXPECT_EQ(nearest(std::string(100000, 'p'), names), "");
    EXPECT_EQ(editDistance("abcd", "abdc"), 1U);
    EXPECT_EQ(editDistance("", "abc"), 3U);
}

TEST(CheckLine, is_that_of_the_value_or_of_what_should_hold_it) {
    const auto findings = check(
        changed(collectorText, {"", "\"index\": 1", "\n \"index\": 9", E, "", "", ""}), Kind::Collector);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].line, 6U);
    const auto missing =
        check(changed(collectorText, {"", "\"index\": 1, ", "", E, "", "", ""}), Kind::Collector);
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing[0].line, 5U);
}

}  // namespace
