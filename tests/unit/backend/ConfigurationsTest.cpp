/// Configurations and assignments: from the request over the database to what a vehicle is sent.
#include "backend/store/Configurations.h"

#include <botan/base64.h>

#include "backend/store/Schema.h"
#include "backend/web/ConfigureApi.h"
#include "backend/web/Queries.h"
#include "tests/unit/backend/Databases.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend {
namespace {

using namespace vlmTest;
using web::Role;

constexpr const char* kGood = R"({"CONFIG": [{"name": "trip", "version": "1"}],
  "CLOCK": [{"name": "minute", "duration": 60000}],
  "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "minute"}],
  "REPORT": [{"name": "Trip", "application": "App", "from": ["position"]}]})";

struct ConfigurationsTest : WithRoutes {
    ConfigurationsTest() {
        api.addRoutes(router);
        for (const std::string vehicle : {"a", "b", "c"}) {
            say(vehicle, R"({"state":"offline"})");
        }
    }
    store::Sql& sql() { return store.sql(); }
    /// Status and body.
    std::pair<int, Value> ask(const std::string& method, const std::string& target, const Value& body = {},
                              Role role = Role::Configure) {
        const auto response = handle(method, target, compactText(body), role);
        return {response.status, valueOf(response.body)};
    }
    static Value configuration(const std::string& name, const std::string& text = kGood) {
        Value body;
        body["name"] = name;
        body["text"] = text;
        return body;
    }
    std::int64_t add(const std::string& name) {
        return ask("POST", "/api/configurations", configuration(name)).second["id"].asInt64();
    }
    /// No configuration for id 0.
    int assign(const std::string& vehicle, const std::string& group, std::int64_t id) {
        return ask("PUT", "/api/assignments",
                   valueOf(R"({"vehicle":")" + vehicle + R"(","group":")" + group + R"(","configuration":)" +
                           (id == 0 ? "null" : std::to_string(id)) + "}"))
            .first;
    }
    int setGroup(const std::string& vehicle, const std::string& group) {
        return ask("PUT", "/api/vehicles/" + vehicle + "/group", valueOf(R"({"group":")" + group + "\"}"))
            .first;
    }
    /// "<prefix> <recordId>" of each configuration among the messages.
    static std::vector<std::string> sent(const std::vector<Outgoing>& messages) {
        std::vector<std::string> out;
        for (const Outgoing& message : messages) {
            if (message.topic.ends_with("/config/response")) {
                const Value content = valueOf(message.payload);
                out.push_back(message.topic.substr(0, message.topic.find("/config")) + ' ' +
                              content[0]["recordId"].asString());
                const auto body = Botan::base64_decode(content[0]["recordBody"].asString());
                EXPECT_EQ(std::string(body.begin(), body.end()), kGood);
            }
        }
        return out;
    }
    std::vector<std::string> say(const std::string& vehicle, const std::string& status) {
        return sent(backend.onMessage("vlm/" + vehicle + "/status", status));
    }
    std::vector<std::string> later(int pauses = 1) {
        return sent(backend.tick(Backend::Clock::now() + pauses * settings().returnPause));
    }
    std::vector<std::string> returns(const std::string& vehicle) {
        EXPECT_THAT(say(vehicle, R"({"state":"online"})"), IsEmpty());
        return later();
    }
    std::vector<std::string> request(const std::string& vehicle) {
        return sent(backend.onMessage("vlm/" + vehicle + "/config/request", "{}"));
    }
    void health(const std::string& vehicle, const std::string& record, const std::string& state) {
        backend.onMessage("vlm/" + vehicle + "/health", R"({"configurations":[{"recordId":")" + record +
                                                            R"(","state":")" + state +
                                                            R"(","reason":"why"}]})");
    }
    std::vector<std::string> changed() { return sent(backend.onConfigurationsChanged()); }
    Value delivery(const std::string& vehicle) { return web::vehicle(sql(), vehicle)["configuration"]; }
    std::string stateOf(const std::string& vehicle) { return delivery(vehicle)["state"].asString(); }
    std::string record(std::int64_t id) { return store::configuration(sql(), id).value().recordId; }

    Backend backend{settings(), [](const std::string&) {}};
    int changes = 0;
    const web::ConfigureApi api{{where, "/nowhere/catalog.json", [this] { ++changes; }}, readers};
};

TEST_P(ConfigurationsTest, AreCheckedAsByVlmCheckAndCountedPerName) {
    const auto [status, findings] =
        ask("POST", "/api/check", configuration("", "{\"CLOCK\": 1,\n \"clok\": []}"), Role::View);
    EXPECT_EQ(status, 200);
    EXPECT_THAT(compactText(findings), AllOf(HasSubstr(R"("line":2)"), HasSubstr("known here: CLOCK"),
                                             HasSubstr("/nowhere/catalog.json cannot be read")));

    const auto refused = ask("POST", "/api/configurations", configuration("trip", "{\"CLOCK\":"));
    EXPECT_EQ(refused.first, 422);
    EXPECT_THAT(compactText(refused.second["findings"]), HasSubstr("is not JSON"));
    EXPECT_EQ(ask("POST", "/api/configurations", configuration("trip", std::string(100, '['))).first, 422);
    EXPECT_EQ(ask("POST", "/api/configurations", configuration("two\nlines")).first, 400);
    EXPECT_EQ(ask("POST", "/api/configurations", configuration("trip"), Role::View).first, 403);

    const auto first = ask("POST", "/api/configurations", configuration("trip"));
    ASSERT_EQ(first.first, 201) << compactText(first.second);
    EXPECT_EQ(first.second["version"].asInt(), 1);
    EXPECT_EQ(first.second["user"].asString(), "ines");
    add("other");
    const auto second = ask("POST", "/api/configurations", configuration("trip")).second;
    EXPECT_EQ(second["version"].asInt(), 2);
    EXPECT_NE(second["recordId"], first.second["recordId"]);
    const auto all = ask("GET", "/api/configurations", {}, Role::View).second;
    ASSERT_THAT(all, SizeIs(3));
    EXPECT_EQ(all[0]["id"], second["id"]);
    EXPECT_FALSE(all[0].isMember("text"));
    EXPECT_EQ(ask("GET", "/api/configurations/" + second["id"].asString()).second["text"].asString(), kGood);
    EXPECT_EQ(ask("GET", "/api/configurations/99").first, 404);
}

TEST_P(ConfigurationsTest, OfAVehicleComeBeforeItsGroups) {
    const auto own = add("own");
    const auto shared = add("shared");
    setGroup("a", "fleet");
    setGroup("b", "fleet");
    assign("", "fleet", shared);
    assign("a", "", own);
    EXPECT_EQ(changes, 4);
    EXPECT_EQ(delivery("a")["desired"].asInt64(), own);
    EXPECT_EQ(delivery("b")["desired"].asInt64(), shared);
    EXPECT_EQ(stateOf("c"), "none");
    EXPECT_EQ(stateOf("a"), "waiting");
    EXPECT_EQ(
        compactText(ask("GET", "/api/assignments").second),
        R"([{"configuration":1,"group":"","vehicle":"a"},{"configuration":2,"group":"fleet","vehicle":""}])");

    EXPECT_EQ(assign("a", "", 0), 200);
    EXPECT_EQ(delivery("a")["desired"].asInt64(), shared);
    EXPECT_EQ(setGroup("a", ""), 200);
    EXPECT_EQ(delivery("a")["desired"], Value());

    EXPECT_EQ(assign("unknown", "", own), 404);
    EXPECT_EQ(assign("", "", own), 400);
    EXPECT_EQ(setGroup("unknown", "fleet"), 404);
    EXPECT_EQ(setGroup("a", std::string(65, 'x')), 400);
}

TEST_P(ConfigurationsTest, AreSentOnRequestAtAssignmentAndAtReturnButNeverTwice) {
    const auto first = add("first");
    assign("a", "", first);
    EXPECT_THAT(changed(), IsEmpty()) << "it is offline";
    EXPECT_THAT(returns("a"), ElementsAre("vlm/a " + record(first)));
    EXPECT_EQ(stateOf("a"), "sent");
    EXPECT_THAT(changed(), IsEmpty());

    health("a", "another", "applied");
    EXPECT_EQ(stateOf("a"), "sent");
    EXPECT_THAT(returns("a"), ElementsAre("vlm/a " + record(first))) << "it may have been lost";
    health("a", record(first), "refused");
    EXPECT_EQ(stateOf("a"), "refused");
    EXPECT_EQ(delivery("a")["reason"].asString(), "why");
    health("a", record(first), "applied");
    EXPECT_EQ(stateOf("a"), "applied");
    EXPECT_THAT(returns("a"), IsEmpty());

    EXPECT_THAT(say("a", R"({"state":"online"})"), IsEmpty());
    EXPECT_THAT(request("a"), ElementsAre("vlm/a " + record(first))) << "its process is a new one";
    EXPECT_THAT(later(), IsEmpty()) << "it has just got it";

    const auto second = add("second");
    setGroup("a", "fleet");
    setGroup("b", "fleet");
    assign("", "fleet", second);
    EXPECT_THAT(returns("b"), SizeIs(1));
    EXPECT_THAT(changed(), IsEmpty()) << "the vehicle's own comes first";
    assign("a", "", 0);
    EXPECT_THAT(changed(), ElementsAre("vlm/a " + record(second)));
    EXPECT_THAT(request("c"), IsEmpty()) << "there is none for it";
    assign("a", "", first);
    EXPECT_THAT(changed(), ElementsAre("vlm/a " + record(first))) << "the last one that it got counts";
}

TEST_P(ConfigurationsTest, ThatTheDatabaseDoesNotGiveAreSentWhenItIsBackAndPresenceIsWritten) {
    const auto id = add("trip");
    assign("a", "", id);
    for (const std::string vehicle : {"a", "b"}) {
        say(vehicle, R"({"state":"online"})");
    }
    sql().script("ALTER TABLE vehicles RENAME TO hidden");
    EXPECT_THAT(request("a"), IsEmpty());
    say("b", R"({"state":"offline"})");
    EXPECT_TRUE(backend.databaseFailed());
    EXPECT_THAT(later(), IsEmpty());
    sql().script("ALTER TABLE hidden RENAME TO vehicles");
    EXPECT_THAT(sent(backend.retry()), ElementsAre("vlm/a " + record(id)));
    EXPECT_FALSE(web::vehicle(sql(), "b")["online"].asBool());
    EXPECT_THAT(later(2), IsEmpty());
}

INSTANTIATE_WITH_EACH_DATABASE(ConfigurationsTest);

class OlderDatabaseTest : public ::testing::TestWithParam<store::Dialect> {};
INSTANTIATE_WITH_EACH_DATABASE(OlderDatabaseTest);

TEST_P(OlderDatabaseTest, IsUpgradedAndKeepsWhatItHas) {
    const TemporaryFolder folder;
    const std::string where = freshDatabase(GetParam(), folder);
    {
        const auto old = store::connect(where);
        store::migrate(*old, 1);
        old->script(
            "INSERT INTO vehicles (name, prefix, online, catalog) VALUES ('bench', 'vlm/bench', 1, '21'),"
            "('fleet/deep', 'fleet/deep', 0, ''), ('a/b', 'a/b', 0, ''), ('b', 'b', 0, '');"
            "INSERT INTO unusable (vehicle, received, reason, payload) VALUES (1, 20, '', '{'), (1, 20, '', "
            "'{');"
            "CREATE VIEW own AS SELECT message_id FROM reports;"
            "INSERT INTO reports (message_id, vehicle, application, name, sequence, catalog, received, "
            "measured_from, measured_to, samples, wire_bytes, envelope) "
            "VALUES ('m', 1, 'App', 'Trip', 3, '21', 20, 10, 10, 1, 9, '')");
        const auto position =
            old->query("SELECT id FROM events WHERE service = 'GNSSProxy' AND resource = 'positions'");
        const store::SampleRow sample{1,  1,  store::integer(position[0][0]), 1,
                                      10, 20, R"({"latitude":48.5})"};
        old->prepareSamples(sample.receivedMs);
        store::Transaction transaction(*old);
        old->insertSamples({&sample, 1});
        transaction.commit();
    }
    store::Store database(where);
    const auto rows =
        database.sql().query("SELECT latitude, received_ms FROM gnss_positions WHERE vehicle = 'bench'");
    ASSERT_THAT(rows, SizeIs(1));
    EXPECT_EQ(store::real(rows[0][0]), 48.5);
    store::Received again{"vlm/bench", envelopeText("m", "[]"), "", "", 9, 30};
    EXPECT_EQ(database.put({&again, 1})[0].outcome, store::Outcome::Repeated);
    again.prefix = "vlm/other";
    EXPECT_EQ(database.put({&again, 1})[0].outcome, store::Outcome::Stored);
    EXPECT_THAT(database.sql().query("SELECT message_id FROM own"), SizeIs(2));
    EXPECT_THAT(database.sql().query("SELECT 1 FROM vehicles WHERE name IN ('deep', 'a/b', 'b')"), SizeIs(3));
    const Value vehicle = web::vehicle(database.sql(), "bench");
    EXPECT_EQ(vehicle["configuration"]["state"].asString(), "none");
    EXPECT_EQ(vehicle["samples"].asInt(), 1);
    EXPECT_EQ(vehicle["unusable"].asInt(), 2);
    EXPECT_EQ(web::latest(database.sql(), "bench").size(), 1u);
    const auto added = store::addConfiguration(database.sql(), "trip", kGood, "", 1);
    store::assign(database.sql(), {"bench", "", added.id}, "", 2);
    EXPECT_EQ(web::vehicle(database.sql(), "bench")["configuration"]["state"].asString(), "waiting");
}

}  // namespace
}  // namespace vlmBackend
