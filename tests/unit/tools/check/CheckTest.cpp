#include "tests/support/Test.h"
#include "tools/check/Checks.h"
#include "tools/check/Suggest.h"

namespace vlmCheck {

void PrintTo(const Finding& finding, std::ostream* out) {
    *out << finding.path << ": " << finding.reason << " [" << finding.suggestion << "]";
}

namespace {

using namespace vlmTest;

Document documentOf(const std::string& text) {
    Document document;
    document.name = "test.json";
    document.text = text;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, document.root, false)) << reader.getFormattedErrorMessages() << text;
    return document;
}

const std::map<Kind, std::string> goodTexts = {
    {Kind::Catalog, R"({"meta": {"vlmVersion": "v1"}, "services": {
  "GNSS": {"positions": {"loadFactor": 1, "serviceId": "4353", "someipKeyProperty": "type", "instances": {
      "1": [{"property": "latitude", "signal": "GNSS.latitude", "privacy_group": 2}],
      "2": [{"property": "longitude", "signal": "GNSS.longitude", "privacy_group": 2}]}}},
  "RouterBasedConsumption": {"status": {"loadFactor": 1, "serviceId": "4390", "someipKeyProperty": "statusType",
      "instances": {"0": []}}}}})"},
    {Kind::Collector, R"({
  "CONFIG": [{"name": "trip", "version": "1"}],
  "CLOCK": [{"name": "minute", "duration": 60000}],
  "REPORT": [{"name": "r", "application": "bench", "from": ["pos"]}],
  "COLLECT": [{"name": "pos", "serv": "GNSS", "res": "positions", "index": 1, "history": 1000, "on": "minute"}]})"},
    {Kind::Application, R"({"OfferedDataTypes": ["A", "B"]})"},
    {Kind::Manifest,
     R"({"someip": {"address": "10.0.0.1", "network": "10.0.0.0/8", "discovery": {"port": 30490}},
         "backend": {"transport": "mqtt", "mqtt": {"host": "broker", "tls": true, "caFile": "/dev/null"}}})"}};

/// One change to a good document, and the expected finding.
struct Case {
    std::string find;     ///< a part of the good text
    std::string replace;  ///< its replacement
    Severity severity;
    std::string path;
    std::string reason;
    std::string suggestion{};
};

std::vector<Finding> check(const std::string& text, Kind kind) {
    static const Document catalogDocument = documentOf(goodTexts.at(Kind::Catalog));
    static const CatalogView catalog(catalogDocument);
    return checkDocument(documentOf(text), kind, &catalog);
}

std::vector<Finding> checkChanged(Kind kind, const std::string& find, const std::string& replace) {
    std::string text = goodTexts.at(kind);
    const auto at = text.find(find);
    EXPECT_NE(at, std::string::npos) << find;
    return at == std::string::npos ? std::vector<Finding>()
                                   : check(text.replace(at, find.size(), replace), kind);
}

/// Expects no finding for the good document, and the finding of each change.
void expectFindings(Kind kind, const std::vector<Case>& cases) {
    EXPECT_TRUE(check(goodTexts.at(kind), kind).empty());
    for (const auto& test : cases) {
        EXPECT_THAT(checkChanged(kind, test.find, test.replace),
                    Contains(AllOf(Field(&Finding::severity, test.severity), Field(&Finding::path, test.path),
                                   Field(&Finding::reason, HasSubstr(test.reason)),
                                   Field(&Finding::suggestion, HasSubstr(test.suggestion)))))
            << test.replace;
    }
}

constexpr auto E = Severity::Error;
constexpr auto W = Severity::Warning;

TEST(Check, FindsEachFaultOfACollectorConfiguration) {
    expectFindings(
        Kind::Collector,
        {{R"("CLOCK")", R"("CLOK")", E, "$", "\"CLOCK\" is missing", "rename \"CLOK\" to \"CLOCK\""},
         {R"("CONFIG")", R"("CONFIGS")", W, "$.CONFIGS", "is ignored", "did you mean \"CONFIG\"?"},
         {"60000", "59999", W, "$.CLOCK[0].duration", "below a minute: the clock runs with 60000", "60000"},
         {R"("CLOCK": [)", R"("CLOCK": [{"name": "x"}, )", W, "$.CLOCK[1]", "only the first clock ticks"},
         {R"("REPORT": [)", R"("REPORT": [{"name": "r", "from": ["pos"]}, )", E, "$.REPORT[1].name",
          "another report is named \"r\""},
         {R"(["pos"])", R"(["pos", "poss"])", E, "$.REPORT[0].from[1]", "no collector is named \"poss\"",
          "did you mean \"pos\"?"},
         {R"(["pos"])", "[]", W, "$.COLLECT[0]", "no report gathers collector \"pos\"", "\"from\""},
         {R"("COLLECT": [)",
          R"("COLLECT": [{"name": "pos", "serv": "GNSS", "res": "positions", "index": 2}, )", E,
          "$.COLLECT[1].name", "exists at $.COLLECT[0] already"},
         {R"("COLLECT": [)", R"("COLLECT": [{"name": "b", "serv": "GNSS", "res": "positions", "index": 1}, )",
          E, "$.COLLECT[1]", "belongs to collector \"b\" already: this one stays empty"},
         {R"("serv": "GNSS")", R"("serv": "GNS")", E, "$.COLLECT[0].serv", "no service \"GNS\"",
          "did you mean \"GNSS\"?"},
         {R"("serv": "GNSS")", R"("serv": "GNSSProxy")", E, "$.COLLECT[0].serv", "no service",
          "write \"GNSS\""},
         {"positions", "velocities", E, "$.COLLECT[0].res", "no resource \"velocities\"",
          "GNSS has: positions"},
         {R"("index": 1)", R"("index": 3)", E, "$.COLLECT[0].index", "no instance 3", "by \"type\": 1, 2"},
         {R"("index": 1)", R"("index": "1")", E, "$.COLLECT[0].index", "is a text (\"1\")"},
         {R"("index": 1)", R"("index": 1.75)", W, "$.COLLECT[0].index", "is read as 1"},
         {R"("on": "minute")", R"("on": "minte")", W, "$.COLLECT[0].on", "the clock drives this collector",
          "did you mean \"minute\"?"},
         {R"("history": 1000)", R"("history": 18446744073709551615)", E, "$.COLLECT[0].history",
          "a whole number from -9223372036854775808 to"},
         {R"("index": 1)", R"("index": null)", E, "$.COLLECT[0].index", "is null"},
         {R"({"name": "minute", "duration": 60000})", "null", E, "$.CLOCK[0]", "is null"},
         {R"("trip")", R"("tr\u0000ip")", E, "$.CONFIG[0].name", "holds U+0000"},
         {R"("bench")",
          "\"Gr\xF6\xDF"
          R"(e")",
          E, "$.REPORT[0].application", "is not UTF-8"},
         {R"("COLLECT": [)", R"("COMPARE": [null], "COLLECT": [)", W, "$.COMPARE[0]",
          "is read as an empty object"},
         {R"("COLLECT": [)", R"("COMPARE": null, "COLLECT": [)", W, "$.COMPARE", "is read as an empty array"},
         {R"("COLLECT": [)", R"("COMPARE": [{"name": "minute"}], "COLLECT": [)", W, "$.COMPARE[0].name",
          "names an earlier CLOCK or COMPARE element"}});
}

TEST(Check, ReportsAFaultOnce) {
    for (const char* duration : {"-3000000000", "1.5", "\"1\""}) {
        EXPECT_EQ(checkChanged(Kind::Collector, "60000", duration).size(), 1u) << duration;
    }
    EXPECT_EQ(checkChanged(Kind::Collector, "1000", "1e19").size(), 1u);
}

TEST(Check, FindsEachFaultOfACatalog) {
    const std::string positions = "$.services.GNSS.positions";
    expectFindings(
        Kind::Catalog,
        {{R"("vlmVersion": "v1")", R"("vlmVersion": "")", E, "$.meta.vlmVersion", "is empty", "server name"},
         {R"("2": [)", R"("two": [)", E, positions + ".instances.two", "no instance id"},
         {R"("2": [)", R"("4000000000": [)", E, positions + ".instances.4000000000", "does not fit"},
         {R"("2": [)", R"("01": [)", E, positions + ".instances.1", "both read as 1"},
         {"4390", "4353", W, "$.services.RouterBasedConsumption.status.serviceId",
          "belongs to service \"GNSS\" already"},
         {R"("GNSS": {)", R"("GNSSProxy": {)", W, "$.services.GNSSProxy", "ends in \"Proxy\"", "\"GNSS\""}});
}

TEST(Check, FindsEachFaultOfAnApplicationConfigurationAndOfAManifest) {
    expectFindings(Kind::Application,
                   {{R"("B")", "{}", E, "$.OfferedDataTypes[1]", "is an object; a text is expected"},
                    {R"("B")", R"("A")", W, "$.OfferedDataTypes[1]", "offered twice"}});
    expectFindings(
        Kind::Manifest,
        {{R"("address")", R"("adress")", E, "$.someip.adress", "is not known", "did you mean \"address\"?"},
         {"30490", "70000", E, "$.someip.discovery.port", "from 1 to 65535"},
         {R"("transport": "mqtt")", R"("transport": "mqt")", E, "$.backend.transport",
          "one of \"directory\", \"mqtt\"", "did you mean \"mqtt\"?"},
         {"10.0.0.1", "10.0.0.999", E, "$.someip.address", "an IPv4 or IPv6 address"},
         {"/dev/null", "/nowhere/ca.pem", W, "$.backend.mqtt.caFile", "does not exist"},
         {R"("transport": "mqtt", )", "", W, "$.backend", "\"directory\" is used", "mqtt"}});
}

TEST(Check, GuessesTheKindFromTheMembersEvenWhenOneIsMisspelt) {
    for (const auto& [kind, text] : goodTexts) {
        EXPECT_EQ(guessKind(documentOf(text)), kind) << text;
    }
    EXPECT_EQ(guessKind(documentOf(R"({"OfferdDataTypes": []})")), Kind::Application);
    EXPECT_EQ(guessKind(documentOf(R"({"temperature": 5})")), std::nullopt);
    EXPECT_EQ(guessKind(documentOf("[1]")), std::nullopt);
}

TEST(Check, SuggestsTheNearestNameOrNone) {
    const std::vector<std::string> names = {"positions", "positionsQuality", "doors"};
    EXPECT_EQ(nearest("postions", names), "positions");
    EXPECT_EQ(nearest("Positions", names), "positions");
    EXPECT_EQ(nearest("psoitions", names), "positions");
    EXPECT_EQ(nearest("door", names), "doors");
    EXPECT_EQ(nearest("doorsProxy", names), "doors");
    EXPECT_EQ(nearest("x", names), "");
    EXPECT_EQ(nearest("velocities", names), "");
    EXPECT_EQ(nearest(std::string(100000, 'p'), names), "");
}

TEST(Check, ReportsTheLineOfTheValueOrOfItsParent) {
    EXPECT_THAT(checkChanged(Kind::Collector, "\"index\": 1", "\n \"index\": 9"),
                ElementsAre(Field(&Finding::line, 6U)));
    EXPECT_THAT(checkChanged(Kind::Collector, "\"index\": 1, ", ""), ElementsAre(Field(&Finding::line, 5U)));
}

}  // namespace
}  // namespace vlmCheck
