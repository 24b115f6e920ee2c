#include <latch>

#include "backend/store/Configurations.h"
#include "backend/web/Access.h"
#include "backend/web/Machine.h"
#include "backend/web/Page.h"
#include "backend/web/Queries.h"
#include "backend/web/ReadApi.h"
#include "backend/web/Updates.h"
#include "tests/unit/backend/Databases.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::web {
namespace {

using namespace vlmTest;

constexpr std::int64_t kNow = 1'700'000'000'000;

struct WebTest : WithRoutes {
    WebTest() { addReadRoutes(router, readers, readers); }

    void arrive(const std::string& id, const std::string& samples) {
        ASSERT_EQ(WithRoutes::arrive("vlm/a b", envelopeText(id, samples), kNow + 500),
                  store::Outcome::Stored);
    }
    void setPresence(const std::string& prefix, bool online, std::int64_t at) {
        store::Presence one{prefix, online, "1", false};
        EXPECT_TRUE(store.setPresence({&one, 1}, "", at));
    }
    Response get(const std::string& target, Role role = Role::View) {
        return handle("GET", target, "", role);
    }
    Value ask(const std::string& what) {
        const Response answer = get("/api/vehicles/a%20b" + what);
        EXPECT_EQ(answer.status, 200) << what << ": " << answer.body;
        return valueOf(answer.body);
    }
};
INSTANTIATE_WITH_EACH_DATABASE(WebTest);

TEST_P(WebTest, NamesWhatIsWrongWithARequestAndWhoMayMakeIt) {
    router.add("PUT", "/api/things/{thing}", Role::Configure, [](const Request& request) {
        return Response::text(request.parameter("thing") + "=" + request.json()["x"].asString());
    });
    const std::tuple<const char*, Role, const char*, std::string, int> requests[] = {
        {"/api/things/a%2Fb", Role::Configure, "application/json", R"({"x":"y"})", 200},
        {"/api/things/a", Role::View, "application/json", "{}", 403},
        {"/api/things/a", Role::None, "application/json", "{}", 401},
        {"/api/things/a", Role::Configure, "text/plain", "{}", 415},  // no form of another site
        {"/api/things/a", Role::Configure, "application/json", "[]", 400},
        {"/api/things/a", Role::Configure, "application/json", R"({"x":)" + std::string(100, '['), 413},
        {"/api/things/", Role::Configure, "application/json", "{}", 404},
        {"/api/things/%f", Role::Configure, "application/json", "{}", 400},
    };
    for (const auto& [target, role, type, body, status] : requests) {
        const Response answer = handle("PUT", target, body, role, type);
        EXPECT_EQ(answer.status, status) << target << ' ' << type << ' ' << body.substr(0, 20);
        EXPECT_EQ(answer.body == "a/b=y", status == 200);
    }
    EXPECT_EQ(get("/api/things/a").status, 405);
    EXPECT_EQ(get("/api/vehicles", Role::None).status, 401);

    arrive("a", "[" + positionText(kNow, 48, 9) + "]");
    const std::pair<const char*, const char*> wrong[] = {
        {"series?column=gnss_positions.latitude&from=1x", "from: a whole number is expected"},
        {"series?column=gnss_positions.latitude&from=99999999999999999999", "from: "},
        {"series?column=gnss_positions.latitude&width=0", "width: a whole number from 1 to 10000"},
        {"series?column=gnss_positions", "no such column"},
        {"series?column=a%27b.c", "is no view"},
        {"series", "column: is missing"},
        {"samples?view=gnss_positions&limit=1001", "limit: "},
        {"samples?view=gnss_positions&after=1_2", "is no cursor"},
        {"export?form=xml", "form: csv, gpx or jsonl"},
        {"export?form=csv&columns=gnss_positions.latitude,x", "is no view"},
    };
    for (const auto& [query, reason] : wrong) {
        const Response answer = get(std::string("/api/vehicles/a%20b/") + query);
        EXPECT_EQ(answer.status, 400) << query;
        EXPECT_THAT(valueOf(answer.body)["error"].asString(), HasSubstr(reason));
    }
    EXPECT_EQ(get("/api/vehicles/none/export?form=gpx").status, 404) << "before the first byte of the file";
}

TEST_P(WebTest, ReducesASeriesToTheExtremesOfEachBin) {
    std::string samples;
    for (int i = 0; i < 100; ++i) {
        samples += (i == 0 ? "[" : ",") + positionText(kNow + i * 10, i == 37 ? 80 : i, 9);
    }
    arrive("a", samples + "]");
    arrive("b",
           R"([{"propertyValuePairs":{"longitude":1},"timestamp":")" + std::to_string(kNow + 5) + "\"}]");

    Value series = ask("/series?column=gnss_positions.latitude&width=4");
    EXPECT_EQ(series["samples"].asInt(), 100) << "one has no latitude";
    EXPECT_EQ(compactText(series["minimums"]), "[0.0,25.0,50.0,75.0]");
    EXPECT_EQ(compactText(series["maximums"]), "[24.0,80.0,74.0,99.0]");
    EXPECT_EQ(series["timesMs"][1].asInt64(), kNow + 250);
    EXPECT_EQ(series["toMs"].asInt64(), kNow + 991);

    series = ask("/series?column=gnss_positions.latitude&from=" + std::to_string(kNow + 10) +
                 "&to=" + std::to_string(kNow + 30) + "&width=1000");
    EXPECT_EQ(compactText(series["minimums"]), "[1.0,2.0]");
    EXPECT_EQ(ask("/series?column=gnss_positions.latitude&from=5&to=-9223372036854775808")["samples"].asInt(),
              0);

    const Value track = ask("/track?points=4");
    EXPECT_EQ(track["samples"].asInt(), 101);
    EXPECT_EQ(track["timesMs"].size(), 4u) << compactText(track);
    // 10 million rows can only be served from the index.
    if (GetParam() == store::Dialect::Postgres) {
        return;  // whose plans depend on how much there is
    }
    const std::int64_t any = 1;
    const store::Cell parameters[] = {any, any, kNow, kNow + 9, any, any};
    const EventField& latitude = *findView("gnss_positions")->field("latitude");
    EXPECT_THAT(store.sql().query("EXPLAIN QUERY PLAN " + seriesStatement(latitude, GetParam()), parameters),
                Contains(Contains(testing::VariantWith<std::string>(HasSubstr(
                    "USING INDEX samples_by_time (vehicle=? AND event=? AND measured>? AND measured<?)")))));
}

TEST_P(WebTest, KeepsTheNewestSampleByMeasuredTimeAndTheTotalsAndPagesGoOnAmongSamplesOfOneTime) {
    arrive("a", "[" + positionText(kNow, 48, 9) + "]");
    arrive("b", "[" + positionText(kNow + 9, 49, 9) + "," + positionText(kNow + 8, 50, 9) + "," +
                    positionText(kNow + 8, 52, 9) + "]");
    arrive("late", "[" + positionText(kNow - 9, 51, 9) + "]");
    const store::Received broken{"vlm/a b", "no envelope", "", "", 10, kNow};
    store.put({&broken, 1});

    const Value latest = ask("/latest");
    ASSERT_EQ(latest.size(), 1u);
    EXPECT_EQ(latest[0]["values"]["latitude"].asDouble(), 49);
    EXPECT_EQ(latest[0]["measuredMs"].asInt64(), kNow + 9);
    EXPECT_EQ(latest[0]["receivedMs"].asInt64(), kNow + 500);
    const Value vehicle = ask("");
    EXPECT_EQ(vehicle["reports"].asInt(), 3);
    EXPECT_EQ(vehicle["samples"].asInt(), 5);
    EXPECT_EQ(vehicle["unusable"].asInt(), 1);
    EXPECT_EQ(vehicle["measuredFromMs"].asInt64(), kNow - 9);
    EXPECT_EQ(vehicle["measuredToMs"].asInt64(), kNow + 9);
    const Value unusable = valueOf(get("/api/unusable?vehicle=a+b").body);
    ASSERT_EQ(unusable.size(), 1u);
    EXPECT_EQ(get("/api/unusable/" + unusable[0]["id"].asString()).body, "no envelope");
    EXPECT_EQ(get("/api/unusable/99").status, 404);

    std::string after;
    std::string pages;
    for (int page = 0; page < 3; ++page) {
        for (const Value& sample : ask("/samples?view=gnss_positions&limit=2&after=" + after)) {
            pages += sample["values"]["latitude"].asString() + " ";
            after = sample["cursor"].asString();
        }
    }
    EXPECT_EQ(pages, "49.0 52.0 50.0 48.0 51.0 ");

    deleteAll(kNow + 86'400'000);
    EXPECT_EQ(ask("/latest").size(), 0u);
    EXPECT_EQ(ask("")["reports"].asInt(), 0);
    EXPECT_EQ(ask("")["samples"].asInt(), 0);
    EXPECT_EQ(ask("")["unusable"].asInt(), 0);
    EXPECT_TRUE(ask("")["lastReport"].isNull());
}

TEST_P(WebTest, ListsVehiclesInPartsAndCountsAll) {
    const auto names = [&](const std::string& query) {
        std::string all;
        const Value found = valueOf(get("/api/vehicles?" + query).body);
        for (const Value& vehicle : found) {
            all += (all.empty() ? "" : " ") + vehicle["name"].asString();
        }
        return all;
    };
    const Value health = valueOf(R"({"waitingEnvelopes":17,
        "counters":{"spool.dropped.oldest":3,"queue.report.dropped":4,"log.dropped.dlt":5}})");
    for (const char* name : {"Car_1", "car-2", "van"}) {
        setPresence(std::string("vlm/") + name, name[0] == 'v', kNow);
    }
    store.setHealth("vlm/van", health, kNow);
    store::setGroup(store.sql(), "car-2", "50% fleet");
    arrive("a", "[" + positionText(kNow, 48, 9) + "]");  // a vehicle without presence

    EXPECT_EQ(names("search=CAR_"), "Car_1") << "no pattern";
    EXPECT_EQ(names("search=0%25+FL"), "car-2") << "a part of the group";
    EXPECT_EQ(names("show=online"), "van");
    EXPECT_EQ(names("show=losses"), "van");
    EXPECT_EQ(names("show=waiting"), "van");
    EXPECT_EQ(names("show=offline").size(), std::string("Car_1 car-2").size());
    EXPECT_EQ(names("show=refused"), "");
    EXPECT_EQ(names("search=car&show=online"), "");
    EXPECT_EQ(get("/api/vehicles?show=some").status, 400);
    EXPECT_EQ(get("/api/vehicles?limit=1001").status, 400);
    const std::string whole = names("");
    std::string paged;
    for (std::string name = names("limit=1"); !name.empty() && paged.size() < 100;) {
        paged += (paged.empty() ? "" : " ") + name;
        std::ranges::replace(name, ' ', '+');
        name = names("limit=1&after=" + name);
    }
    EXPECT_EQ(paged, whole);

    const Value fleet = valueOf(get("/api/fleet").body);
    EXPECT_EQ(
        compactText(fleet),
        R"({"configurations":[],"groups":[{"name":"50% fleet","vehicles":1}],"online":1,"present":3,"refused":0,)"
        R"("samples":1,"vehicles":4,"waitingEnvelopes":17,"withLosses":1})");
    EXPECT_EQ(valueOf(get("/api/vehicles/van").body)["lost"].asInt(), 7);
}

TEST_P(WebTest, UpdatesNameWhatChangedMergeItForASlowReaderAndOnlySayThatMuchDid) {
    for (int i = 0; i < 1001; ++i) {
        store.sql().script("INSERT INTO vehicles (name, prefix) VALUES ('v" + std::to_string(i) + "', '')");
    }
    Metrics metrics;
    Updates updates(readers, metrics);
    updates.addRoutes(router);
    SharedList<std::string> fast;
    SharedList<std::string> slow;
    std::latch slowGoesOn(1);
    const auto read = [&](SharedList<std::string>& got) {
        get("/api/updates").stream([&](std::string_view text) {
            got.add(std::string(text));
            if (&got == &slow && text.find("\"reports\":1}") != text.npos) {
                slowGoesOn.wait();
            }
            return true;
        });
    };
    std::jthread threads[] = {std::jthread(read, std::ref(fast)), std::jthread(read, std::ref(slow))};
    const auto comes = [](const SharedList<std::string>& list, const std::string& part) {
        return eventually([&] { return testing::Value(list.all(), Contains(HasSubstr(part))); });
    };
    EXPECT_TRUE(comes(fast, "event: vehicles\ndata: []\n\n")) << "1001 are too many";
    setPresence("vlm/one", true, kNow);
    EXPECT_TRUE(comes(fast, "\"one\"") && comes(slow, "\"one\""));
    for (const std::string count : {"1", "2", "3"}) {
        store.sql().script("UPDATE vehicles SET reports = " + count + " WHERE name = 'one'");
        EXPECT_TRUE(comes(fast, "\"reports\":" + count + "}")) << count;
        EXPECT_TRUE(comes(slow, "\"reports\":1}"));
    }
    slowGoesOn.count_down();
    EXPECT_TRUE(comes(slow, "\"reports\":3}"));
    EXPECT_THAT(slow.all(), Each(Not(HasSubstr("\"reports\":2}"))));
    EXPECT_THAT(fast.all(), Each(Not(HasSubstr("\"v1\"")))) << "only what changed";
    setPresence("vlm/two", true, kNow - 86'400'000);  // the clock was set back
    EXPECT_TRUE(comes(fast, "\"two\""));
    store.sql().script(
        "UPDATE vehicles SET changed = (SELECT MAX(changed) FROM vehicles), reports = reports + 1");
    EXPECT_TRUE(comes(fast, "event: many"));
    updates.end();
}

TEST(WebAccessTest, AdmitsThisMachineUsersAndTheTokenAndStopsGuessing) {
    const TemporaryFolder folder;
    const std::string users = folder.file("users");
    addUser(users, "eva", "view", "a long password");
    addUser(users, "udo", "view", "another password");
    addUser(users, "udo", "configure", "a third password");
    EXPECT_THROW(addUser(users, "a:b", "view", "a long password"), std::runtime_error);
    EXPECT_THROW(addUser(users, "max", "view", "short"), std::runtime_error);
    EXPECT_THROW(addUser(users, "max", "root", "a long password"), std::runtime_error);

    Access access({false, users, "secret"});
    const auto roleOf = [&access](const std::string& authorization,
                                  const std::string& address = "192.0.2.1") {
        Request request;
        const auto refused = access.admit({address, "any", authorization}, request);
        const char* const role[] = {"", ".", "!"};
        return refused ? std::to_string(refused->status)
                       : request.user + role[static_cast<int>(request.role)];
    };
    EXPECT_EQ(roleOf("Basic ZXZhOmEgbG9uZyBwYXNzd29yZA=="), "eva.");  // eva:a long password
    EXPECT_EQ(roleOf("Basic dWRvOmEgdGhpcmQgcGFzc3dvcmQ="), "udo!");  // udo:a third password
    EXPECT_EQ(roleOf("Basic dWRvOmFub3RoZXIgcGFzc3dvcmQ="), "401");   // udo:another password
    EXPECT_EQ(roleOf("Bearer secret"), "token!");
    EXPECT_EQ(roleOf("Bearer secret2"), "401");
    EXPECT_EQ(roleOf(""), "") << "may ask for /healthz";
    for (const char* strange : {"Basic", "Basic ====", "Basic Og==", "Digest x", "Bearer "}) {
        EXPECT_EQ(roleOf(strange), "401") << strange;
    }
    for (int i = 0; i < Access::kMostFailures; ++i) {
        roleOf("Basic ZXZhOng=");  // eva:x
    }
    EXPECT_EQ(roleOf("Basic ZXZhOmEgbG9uZyBwYXNzd29yZA=="), "429");
    EXPECT_EQ(roleOf("Basic ZXZhOmEgbG9uZyBwYXNzd29yZA==", "192.0.2.2"), "eva.") << "another address";

    Access open({true, {}, ""});
    Request request;
    for (const char* own : {"localhost:8642", "127.0.0.1", "[::1]:8642", "127.0.0.2"}) {
        EXPECT_FALSE(open.admit({"127.0.0.1", own, ""}, request)) << own;
    }
    for (const char* foreign : {"127.attacker.example", "attacker.example:8642", ""}) {
        EXPECT_THAT(open.admit({"127.0.0.1", foreign, ""}, request),
                    testing::Optional(Field(&Response::status, 421)))
            << foreign;
    }
}

TEST(WebFilesTest, ServesThePageAndTheEndOfALog) {
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder.file("page/assets"));
    folder.write("page/index.html", "<p>");
    folder.write("page/.hidden", "x");
    folder.write("secret", "x");
    folder.write("page/assets/a-1.js", "1");
    const Page page(folder.file("page"));
    EXPECT_EQ(page.file("/").body, "<p>");
    EXPECT_THAT(page.file("/assets/a-1.js").type, HasSubstr("text/javascript"));
    EXPECT_THAT(page.file("/assets/a-1.js").headers[0].second, HasSubstr("immutable"));
    for (const char* out :
         {"/../secret", "/.hidden", "/assets/../../secret", "//etc/passwd", "/assets", "/none"}) {
        EXPECT_THROW(page.file(out), Problem) << out;
    }
    EXPECT_THAT(Page("none").file("/").body, HasSubstr("The page is missing"));

    std::string log = "2026-03-11 14:05:09.123 1 lost\n";
    for (int i = 0; i < 20'000; ++i) {
        log += "2026-03-11 14:05:09.123 5 " + std::string(100, 'x') + '\n';
    }
    log += "2026-03-11 14:05:10.000 3 seen\n    2026-03-11 14:05:10.000 1 faked\n";
    EXPECT_THAT(Machine::importantLines(folder.write("log", log)),
                ElementsAre("2026-03-11 14:05:10.000 3 seen"));
    EXPECT_TRUE(Machine::importantLines("none").empty());
}

}  // namespace
}  // namespace vlmBackend::web
