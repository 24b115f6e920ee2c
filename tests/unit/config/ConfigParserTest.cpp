// The collector configuration: what is accepted, what is refused with which text, level and code, and what
// the queries answer.
#include "config/ConfigParser.h"

#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

/// A configuration that passes, from whose text tests take parts out or put others in.
struct Document {
    std::string config = R"("CONFIG":[{"name":"bench","version":"1.2"}],)";
    std::string clock = R"("CLOCK":[{"name":"tick","duration":60000}],)";
    std::string report = R"("REPORT":[{"name":"r1","application":"app","from":["c1"]}],)";
    std::string collect =
        R"("COLLECT":[{"name":"c1","serv":"Gnss","res":"position","index":2,"history":5000}])";
    std::string compare;

    Value value() const { return valueOf("{" + config + clock + report + compare + collect + "}"); }
};

Value withCollect(const std::string& elements) {
    Document document;
    document.collect = "\"COLLECT\":[" + elements + "]";
    return document.value();
}

Value withClock(const std::string& elements, const std::string& compare = "") {
    Document document;
    document.clock = "\"CLOCK\":[" + elements + "],";
    document.compare = compare;
    return document.value();
}

struct ConfigParserTest : Test {
    bool parse(Value document) {
        m_log.clear();
        m_parser = ConfigParser();
        return m_parser.parseFromJson(document, m_code);
    }
    bool parse(const char* text) { return parse(valueOf(text)); }

    LogCapture m_log;
    ConfigParser m_parser;
    ConfigErrorCode m_code = ConfigErrorCode::OnEventTypeNotFound;
};

TEST_F(ConfigParserTest, TheClockNeverGoesBelowAMinute) {
    const std::string tooShort = "ZEPH-43664: Field 'duration' is less than 1 minute so setting it to 60000";
    const std::tuple<const char*, int, std::string> cases[] = {
        {R"(,"duration":60001)", 60001, ""},
        {R"(,"duration":59999)", 60000, tooShort},
        {R"(,"duration":null)", 60000, tooShort},
        {"", 60000, "ZEPH-43664: Field 'duration' not present, setting it to 60000"},
    };
    for (const auto& [duration, expected, message] : cases) {
        SCOPED_TRACE(duration);
        ASSERT_TRUE(parse(withClock(R"({"name":"t")" + std::string(duration) + "}")));
        EXPECT_EQ(m_parser.getClockDuration(), expected);
        EXPECT_EQ(m_log.hasPart(5, "ZEPH-43664"), !message.empty());
        EXPECT_TRUE(message.empty() || m_log.has(5, message));
    }
}

TEST_F(ConfigParserTest, OfSeveralClocksTheFirstCountsAndAllNamesDriveOnEvents) {
    ASSERT_TRUE(parse(withClock(R"({"name":"","duration":70000},{"name":"b","duration":1},{},{"name":"b"})",
                                R"("COMPARE":[{"name":"b"},{"name":"hot"},{"name":"hot"}],)")));
    EXPECT_EQ(m_parser.getClockName(), "");
    EXPECT_EQ(m_parser.getClockDuration(), 70000);
    EXPECT_TRUE(m_log.has(5, "Size= 4, only the first clock object will be considered"));
    EXPECT_TRUE(m_log.has(5, "bOn Event type name already exists"));
    EXPECT_EQ(m_log.count(5, "onName already exists"), 2u);
    EXPECT_EQ(m_parser.getOnEventType("b", m_code), CollectorOnEventType::Clock);
    EXPECT_EQ(m_parser.getOnEventType("hot", m_code), CollectorOnEventType::Compare);
    EXPECT_EQ(m_code, ConfigErrorCode::Ok);
    EXPECT_EQ(m_parser.getOnEventType("cold", m_code), CollectorOnEventType::Clock);
    EXPECT_EQ(m_code, ConfigErrorCode::OnEventTypeNotFound);
    EXPECT_TRUE(m_log.has(3, "Didn't find the onEvent type for cold"));
    ASSERT_TRUE(parse(withClock(R"({"name":"a"},{"name":"b"})")));
    EXPECT_EQ(m_log.count(5, "Size= 2, only the first clock object will be considered"), 2u);
}

TEST_F(ConfigParserTest, NamesWhatIsMissingOrOfAWrongTypeAndStopsAtTheFirstFault) {
    Document noCollect, noClock, noReport, namelessReport, twoReports;
    noCollect.collect = R"("OTHER":1)";
    noClock.clock = R"("CLOCK":null,)";
    noReport.report.clear();
    namelessReport.report = R"("REPORT":[{"name":"r"},{"application":"a"}],)";
    twoReports.report = R"("REPORT":[{"name":"r"},{"name":"s"},{"name":"r"}],)";
    const std::tuple<Value, int, std::string> cases[] = {
        {noCollect.value(), 3, "Failed to get collector block from config file"},
        {withCollect(R"({"serv":"s","res":"r","index":0})"), 5, "Field 'name' not present"},
        {withCollect(R"({"name":"a","serv":"s","res":"r","index":0},
                        {"name":"b","serv":"s","res":"r","index":0},
                        {"name":"a","serv":"s","res":"r","index":0})"),
         5, "Invalid configuration: duplicate collector name"},
        {withCollect(R"({"name":"a","serv":"","res":"r","index":0})"), 5, "Field 'serv' is not present"},
        {withCollect(R"({"name":"a","serv":"s","index":0})"), 5, "Field 'res' is not present"},
        {withCollect(R"({"name":"a","serv":"s","res":"r","index":""})"), 5, "Field 'index' is not present"},
        {noClock.value(), 3, "Failed to get the clock from Json Configuration file"},
        {withClock(R"({"duration":60000},{"name":"x"})"), 3,
         "Invalid configuration: field 'Clock name' is not present"},
        {withCollect("null"), 5, "Field 'name' not present"},
        {withCollect(R"({"name":"a","serv":"s","res":"r","index":null})"), 5, "Field 'index' is not present"},
        {withClock("null"), 3, "Invalid configuration: field 'Clock name' is not present"},
        {noReport.value(), 3, "Failed to get the Report from Json Configuration file"},
        {namelessReport.value(), 5, "Field 'Report name' not present"},
        {twoReports.value(), 5, "Invalid configuration file as report name already found"},
        {valueOf(R"([1])"), 3, "collector configuration: an object is expected, found an array"},
        {valueOf(R"({"CLOCK":"tick"})"), 3,
         "CLOCK: an array of objects is expected, found a text (\"tick\")"},
        {valueOf(R"({"COLLECT":[{}, 5]})"), 3, "COLLECT[1]: an object is expected, found a number (5)"},
        {valueOf(R"({"COLLECT":[{"name":"a\u0000b"}]})"), 3,
         "COLLECT[0].name: a text without zero bytes is expected"},
        {valueOf(R"({"COMPARE":[[]]})"), 3, "COMPARE[0]: an object is expected, found an array"},
        {valueOf(R"({"COLLECT":[{},{},{"index":"2"}]})"), 3,
         "COLLECT[2].index: a number from -2147483648 to 2147483647 is expected, found a text (\"2\")"},
        {valueOf(R"({"COLLECT":[{"history":1e19}]})"), 3,
         "COLLECT[0].history: a 64-bit number is expected, found a number (1e+19)"},
        {valueOf(R"({"REPORT":[{"name":"r","from":"c1"}]})"), 3,
         "REPORT[0].from: an array of texts is expected, found a text (\"c1\")"},
        {valueOf(R"({"REPORT":[{"name":"r","from":["a",{}]}]})"), 3,
         "REPORT[0].from[1]: a text is expected, found an object"},
    };
    for (const auto& [document, level, message] : cases) {
        SCOPED_TRACE(message);
        EXPECT_FALSE(parse(document));
        EXPECT_EQ(m_code, ConfigErrorCode::InvalidConfiguration);
        const auto lines = m_log.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[lines.size() - 2].message, message);
        EXPECT_EQ(lines[lines.size() - 2].level, level);
        EXPECT_EQ(lines.back().message, "Invalid configuration file");
        EXPECT_EQ(lines.back().level, 3);
        EXPECT_THAT(m_log.messages(3), SizeIs(level == 3 ? 2 : 1)) << "no second fault";
    }
}

TEST_F(ConfigParserTest, TheFirstElementsCountAndWhatTheJsonConversionAcceptsStaysAccepted) {
    ASSERT_TRUE(parse(R"({"CONFIG":[{"name":17,"version":1.5},"ignored"],
        "CLOCK":[{"name":true,"duration":60000.9},{"duration":"ignored"}],
        "REPORT":[{"name":3,"application":"a1"},{"name":"r2","application":"a2"}],
        "COLLECT":[{"name":1,"serv":2,"res":false,"index":true,"history":2.5e9,"unknown":[{}]},
                   {"name":"c","serv":"s","res":"r","index":2.7,"history":null}],
        "unknown":{"COLLECT":5}})"));
    EXPECT_EQ(m_code, ConfigErrorCode::Ok);
    EXPECT_EQ(m_parser.getConfigName(), "17");
    EXPECT_EQ(m_parser.getConfigVersion(), "1.5");
    EXPECT_EQ(m_parser.getClockName(), "true");
    EXPECT_EQ(m_parser.getClockDuration(), 60000);
    EXPECT_EQ(m_parser.getReportName(), "3");
    EXPECT_EQ(m_parser.getApplicationName(), "a1");
    std::map<std::string, std::string> collects;
    m_parser.getAllCollects(collects);
    EXPECT_THAT(collects, ElementsAre(Pair("2Proxy|false|1", "1"), Pair("sProxy|r|2", "c")));
    std::map<std::string, long long> histories;
    m_parser.getAllCollectorNames(m_code, histories);
    EXPECT_THAT(histories, ElementsAre(Pair("1", 2500000000LL), Pair("c", 0)));
    ASSERT_TRUE(parse(R"({"CONFIG":[null],"CLOCK":[{"name":"t"},null],"REPORT":[{"name":"r"}],
        "COLLECT":[{"name":"c","serv":"s","res":"r","index":0}],"COMPARE":[null]})"));
    EXPECT_EQ(m_parser.getConfigName(), "") << "null reads as an empty element";
    Document unnamed;
    unnamed.config.clear();
    ASSERT_TRUE(parse(unnamed.value()));
    EXPECT_EQ(m_parser.getConfigName() + m_parser.getConfigVersion(), "");
    EXPECT_THAT(m_log.messages(3),
                ElementsAre("Failed to get the configuration from Json Configuration file",
                            "Failed to get the compare block from Json Configuration file, can not set the "
                            "compare on event name and type"));
}

TEST_F(ConfigParserTest, ADocumentOrFileIsRefusedWithTheCodeOfItsFault) {
    const TemporaryFolder folder;
    for (const char* text : {"{}", "[]", "null"}) {
        EXPECT_FALSE(parse(text));
        EXPECT_EQ(m_code, ConfigErrorCode::EmptyInput);
    }
    for (std::string path : {std::string(), folder.file("absent.json")}) {
        EXPECT_FALSE(m_parser.parseFromLocalFile(path, m_code));
        EXPECT_EQ(m_code, ConfigErrorCode::EmptyInput);
    }
    EXPECT_THAT(m_log.messages(3), IsEmpty());
    for (std::string path : {folder.write("broken.json", "{\"COLLECT\": ["),
                             folder.write("deep.json", std::string(100000, '[')), folder.path()}) {
        m_log.clear();
        EXPECT_FALSE(m_parser.parseFromLocalFile(path, m_code));
        EXPECT_EQ(m_code, ConfigErrorCode::InvalidConfiguration);
        EXPECT_THAT(m_log.messages(3), ElementsAre("Catalog file parsing not successful, check format",
                                                   StartsWith(path + ": ")));
    }
    std::string good =
        folder.write("good.json", "// bench\n" + kyo::Json::FastWriter().write(Document().value()));
    EXPECT_TRUE(m_parser.parseFromLocalFile(good, m_code));
    EXPECT_EQ(m_code, ConfigErrorCode::Ok);
    EXPECT_TRUE(m_log.has(3, "Valid configuration file")) << "on level 3 for a file";
    EXPECT_TRUE(m_log.has(7, "configfile=" + good));
}

TEST_F(ConfigParserTest, CollectorsAreListedAndTheFirstOfTwoWithOneKeyGetsTheRecords) {
    // Over two services that share a resource name.
    ASSERT_TRUE(
        parse(withCollect(R"({"name":"c1","serv":"Gnss","res":"position","index":2,"history":9000000000},
                             {"name":"c2","serv":"Gnss","res":"speed","index":1},
                             {"name":"c3","serv":"Gnss","res":"position","index":2},
                             {"name":"c4","serv":"Chassis","res":"speed","index":7},
                             {"name":"c5","serv":"Gnss","res":"position","index":3})")));
    std::map<std::string, std::string> collects{{"GnssProxy|speed|1", "kept"}};
    m_parser.getAllCollects(collects);
    EXPECT_THAT(collects,
                UnorderedElementsAre(Pair("GnssProxy|position|2", "c1"), Pair("GnssProxy|speed|1", "kept"),
                                     Pair("ChassisProxy|speed|7", "c4"), Pair("GnssProxy|position|3", "c5")));
    std::map<std::string, long long> histories;
    m_parser.getAllCollectorNames(m_code, histories);
    EXPECT_THAT(histories, ElementsAre(Pair("c1", 9000000000LL), Pair("c2", 0), Pair("c3", 0), Pair("c4", 0),
                                       Pair("c5", 0)));
    EXPECT_THAT(m_parser.getAllConfiguredServices(m_code), ElementsAre("Gnss", "Chassis"));
    m_log.clear();
    std::map<std::string, std::vector<std::string>> resources;
    m_parser.populateAllServicesAndResources(resources);
    EXPECT_THAT(resources, ElementsAre(Pair("Chassis", ElementsAre("speed")),
                                       Pair("Gnss", ElementsAre("position", "speed"))));
    EXPECT_THAT(m_log.messages(5),
                ElementsAre("Serivce = Gnss already found. Need to update resource",
                            "Size of resource = 1 and now looking for resource = speed",
                            "Resource = speed not found in array. should be inserted",
                            "Size of map value = 2", "Serivce = Gnss already found. Need to update resource",
                            "Size of resource = 2 and now looking for resource = position",
                            "Serivce = Gnss already found. Need to update resource",
                            "Size of resource = 2 and now looking for resource = position"));
    std::vector<int> indexes{5};
    m_parser.getAllIndexes("Gnss", "position", indexes);
    m_parser.getAllIndexes("gnss", "position", indexes);
    EXPECT_THAT(indexes, ElementsAre(5, 2, 3)) << "names are case-sensitive";
}

TEST_F(ConfigParserTest, LookupsByNameAnswerTheirLastResultWhenTheyFail) {
    ASSERT_TRUE(parse(withCollect(R"({"name":"a","serv":"S","res":"r","index":1},
                                     {"name":"b","serv":"S","res":"q","index":2},
                                     {"name":"c","serv":"T","res":"q","index":7})")));
    EXPECT_EQ(m_parser.getResources("S", m_code), "q") << "the last of the service";
    EXPECT_EQ(m_parser.getResources("none", m_code), "q");
    EXPECT_EQ(m_parser.getServiceName("c", m_code), "T");
    EXPECT_EQ(m_parser.getServiceName("none", m_code), "T");
    EXPECT_EQ(m_parser.getIndexNumber("b", "S", "q", m_code), 7) << "matched by the resource alone";
    EXPECT_EQ(m_parser.getIndexNumber("b", "S", "none", m_code), 7);
    EXPECT_EQ(m_code, ConfigErrorCode::ResourceNotFound);
    EXPECT_EQ(m_parser.getResourceIndexValue("T", "q"), 7);
    EXPECT_TRUE(m_log.has(5, "Got the someip index val = 7  for service T  and resource q"));
    EXPECT_EQ(m_parser.getResourceIndexValue("T", "r"), -1);
    m_parser.getServiceAndResource("a", m_code);
    EXPECT_THAT(m_parser.getServiceAndResource("c", m_code), ElementsAre(Pair("S", "r"), Pair("T", "q")))
        << "with the pair of the lookup before";
    EXPECT_TRUE(m_parser.ValidateConfiguration(m_code));
    EXPECT_FALSE(ConfigParser().ValidateConfiguration(m_code));
}

TEST_F(ConfigParserTest, QueriesForWhatIsNotThereAnswerWithTheCodeOfTheirFault) {
    ASSERT_TRUE(parse(Document().value()));
    const std::string service = "\nService name does not exist";
    const std::string collector = "\nCollector name does not exist";
    const std::string failed = "Failed to get the ";
    const std::string json = " from Json Configuration file";
    std::map<std::string, long long> histories;
    const std::tuple<std::function<void()>, int, std::string> cases[] = {
        {[&] { m_parser.getResources("None", m_code); }, 7, "Service name doesn't exist"},
        {[&] { m_parser.getIndexNumber("c1", "None", "position", m_code); }, 7, service},
        {[&] { m_parser.getIndexNumber("c1", "Gnss", "none", m_code); }, 8, "\nResource name does not exist"},
        {[&] { m_parser.getIndexNumber("none", "Gnss", "position", m_code); }, 12, collector},
        {[&] { m_parser.getServiceName("none", m_code); }, 12, collector},
        {[&] { m_parser.getServiceAndResource("none", m_code); }, 12, collector},
        {[&] { ConfigParser().configReportBlock(m_code); }, 11, failed + "report" + json},
        {[&] { ConfigParser().populateConfig(m_code); }, 6, failed + "configuration" + json},
        {[&] { ConfigParser().populateClock(m_code); }, 14, failed + "clock" + json},
        {[&] { ConfigParser().populateReport(m_code); }, 11, failed + "report" + json},
        {[&] { ConfigParser().populateCollect(m_code); }, 14, failed + "collect services" + json},
        {[&] { ConfigParser().getResourceIndexValue("s", "r"); }, 14, failed + "collect services" + json},
        {[&] { ConfigParser().getAllConfiguredServices(m_code); }, 14, failed + "configured services" + json},
        {[&] { ConfigParser().getCollectorObjCount(m_code); }, 14, failed + "collector obj count" + json},
        {[&] { ConfigParser().getAllCollectorNames(m_code, histories); }, 14,
         "Failed to get the services info from Json Catalog file"},
    };
    for (const auto& [query, code, message] : cases) {
        SCOPED_TRACE(message);
        m_log.clear();
        query();
        EXPECT_EQ(static_cast<int>(m_code), code);
        EXPECT_THAT(m_log.messages(3), ElementsAre(message));
        EXPECT_THAT(m_log.messages(5), IsEmpty());
    }
}

}  // namespace
