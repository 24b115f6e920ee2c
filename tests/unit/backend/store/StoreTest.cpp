#include "backend/store/Store.h"

#include "backend/store/Leases.h"
#include "backend/store/Schema.h"
#include "backend/store/Sqlite.h"
#include "tests/unit/backend/Databases.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::store {
namespace {

using namespace vlmTest;

constexpr std::int64_t kNow = 1'700'000'100'000;

Received arrived(std::string text, std::string reason = "", std::int64_t at = kNow) {
    return {"vlm/bench", std::move(text), std::move(reason), "17", 10, at};
}

std::string oneSample(const std::string& id, long long ms = kNow) {
    return envelopeText(id, "[" + positionText(ms, 48, 9) + "]");
}

std::vector<Outcome> outcomes(const std::vector<Stored>& results) {
    std::vector<Outcome> all;
    std::ranges::transform(results, std::back_inserter(all), &Stored::outcome);
    return all;
}

struct StoreTest : WithStore {
    std::int64_t count(const std::string& what) {
        return integer(store.sql().query("SELECT COUNT(*) FROM " + what)[0][0]);
    }
};
INSTANTIATE_WITH_EACH_DATABASE(StoreTest);
struct SqliteStoreTest : StoreTest {};
INSTANTIATE_TEST_SUITE_P(Databases, SqliteStoreTest, testing::Values(Dialect::Sqlite));
struct PostgresStoreTest : StoreTest {};
INSTANTIATE_TEST_SUITE_P(Databases, PostgresStoreTest, testing::Values(Dialect::Postgres));

TEST_P(StoreTest, KeepsEachEnvelopeOnceAndWhatIsUnusableWithItsReason) {
    const Received batch[] = {
        arrived(oneSample("a")), arrived(oneSample("a")), arrived("{\"messageId\":\"u\"}"),
        arrived("\x28\xb5garbage", "no frame"),
        arrived(envelopeText("b", "[{\"propertyValuePairs\":{},\"timestamp\":\"x\"}]"))};
    const auto results = store.put(batch);
    ASSERT_THAT(outcomes(results), ElementsAre(Outcome::Stored, Outcome::Repeated, Outcome::Unusable,
                                               Outcome::Unusable, Outcome::Unusable));
    EXPECT_EQ(results[0].report, "Trip #3");
    EXPECT_EQ(results[2].messageId, "u") << "the vehicle gets a result for it";
    EXPECT_THAT(outcomes(store.put(batch)), Each(Outcome::Repeated));
    EXPECT_EQ(arrive("vlm/other", oneSample("a"), kNow), Outcome::Stored) << "an identifier of its own";

    EXPECT_EQ(count("samples"), 2);
    EXPECT_EQ(
        count(
            "gnss_positions WHERE vehicle = 'bench' AND latitude = 48 AND time = '2023-11-14T22:15:00.000Z'"),
        1);
    EXPECT_EQ(count("unusable"), 3);
    std::string samples = positionText(kNow, 1, 1);
    for (int i = 0; i < 102; ++i) {
        samples += ",{}";
    }
    const std::string whole = envelopeText("many", "[" + samples + "]");
    EXPECT_EQ(arrive("vlm/bench", whole, kNow), Outcome::Stored);
    const auto kept = store.sql().query(
        "SELECT payload FROM unusable WHERE reason = 'no frame' OR reason LIKE '%whole envelope'");
    ASSERT_THAT(kept, SizeIs(2));
    EXPECT_EQ(std::get<Bytes>(kept[0][0]).data, "\x28\xb5garbage");
    EXPECT_EQ(std::get<Bytes>(kept[1][0]).data, whole);
    EXPECT_EQ(text(store.sql().query("SELECT spool_number FROM reports")[0][0]), "17");
}

TEST_P(SqliteStoreTest, StoresNothingOfABatchThatTheDatabaseDoesNotTakeAndAllOfItAfterwards) {
    Backend backend(settings(), [](const std::string&) {});
    ASSERT_THAT(backend.onMessage("vlm/bench/status", R"({"state":"online","serverName":"21"})"), SizeIs(1));

    const std::string pages = text(store.sql().query("PRAGMA page_count")[0][0]);
    store.sql().script("PRAGMA max_page_count = " + pages);
    std::string samples = positionText(kNow, 1, 1);
    for (int i = 0; i < 2000; ++i) {
        samples += "," + positionText(kNow + i, 1, 1);
    }
    const std::vector<Incoming> messages{
        {"vlm/bench/data", oneSample("small")},
        {"vlm/bench/data/plain/2", envelopeText("large", "[" + samples + "]")}};
    auto out = backend.onMessages(messages);
    ASSERT_THAT(out, SizeIs(2)) << "a result each, and no opening as long as nothing can be stored";
    EXPECT_THAT(out[0].payload, HasSubstr("\"dataDeliveryResult\":1"));
    EXPECT_THAT(out[1].payload, HasSubstr("\"messageId\":\"large\""));
    EXPECT_TRUE(backend.databaseFailed());

    out = backend.retry();  // on a new connection, which has no limit
    ASSERT_THAT(out, SizeIs(1)) << "an opening";
    EXPECT_FALSE(backend.databaseFailed());
    EXPECT_EQ(count("reports"), 0);
    out = backend.onMessages(messages);
    ASSERT_THAT(out, SizeIs(2));
    EXPECT_THAT(out[1].payload, HasSubstr("\"dataDeliveryResult\":0"));
    EXPECT_EQ(count("samples"), 2002);
    EXPECT_EQ(text(store.sql().query("SELECT catalog FROM vehicles WHERE online = 1")[0][0]), "21");
}

TEST_P(SqliteStoreTest, KnowsVehiclesByTheLastLevelOfTheirPrefixAndRefusesOtherNames) {
    Settings settings = this->settings();
    const std::string longest(128, 'n');
    Backend backend(settings, [](const std::string&) {});
    for (const std::string& name :
         {std::string("bench"), std::string("data"), std::string(), longest, longest + "n"}) {
        backend.onMessage("vlm/" + name + "/status", R"({"state":"online"})");
        backend.onMessage("vlm/" + name + "/data/zone/data", oneSample(name));
    }
    EXPECT_EQ(
        count("vehicles WHERE online = 1 AND unusable = 1 AND name IN ('bench', 'data', '" + longest + "')"),
        3);
    EXPECT_EQ(count("vehicles"), 3);
    EXPECT_EQ(settings.totals->refused, 4);

    settings.prefixLevels = 3;
    Backend(settings, [](const std::string&) {}).onMessage("a/fleet/deep/data", oneSample("a"));
    EXPECT_EQ(count("vehicles WHERE name = 'deep' AND reports = 1"), 1);
}

TEST_P(SqliteStoreTest, DeletesWhatIsTooOldAndKeepsTheLogOfTheFileShort) {
    for (int i = 0; i < 450; ++i) {
        ASSERT_EQ(arrive("vlm/bench", oneSample(std::to_string(i)), kNow + i), Outcome::Stored);
    }
    EXPECT_LT(store.sql().walBytes(), Sqlite::kWalLimit);
    const Deleted first = store.deleteBefore(kNow + 449);
    EXPECT_LE(first.reports, 200);
    ASSERT_TRUE(first.isMore);
    EXPECT_EQ(arrive("vlm/bench", oneSample("meanwhile"), kNow + 449), Outcome::Stored);
    EXPECT_EQ(first.reports + deleteAll(kNow + 449).samples, 449);
    EXPECT_EQ(count("samples"), 2);
    EXPECT_EQ(count("reports"), 2);
}

TEST_P(StoreTest, RewritesViewsOfOtherDescriptionsAndRefusesANewerDatabase) {
    arrive("vlm/bench", oneSample("a"), kNow);
    store.sql().script(
        "DROP VIEW gnss_positions; CREATE VIEW gnss_positions AS SELECT 1 AS latitude;"
        "UPDATE settings SET value = 'other' WHERE name = 'views'");
    EXPECT_EQ(integer(Store(where).sql().query("SELECT latitude FROM gnss_positions")[0][0]), 48);

    store.sql().script("UPDATE settings SET value = '99' WHERE name = 'version'");
    EXPECT_THAT([&] { Store{where}; }, testing::ThrowsMessage<DatabaseError>(HasSubstr("version 99")));
}

/// Rows of the partitions, by their names.
std::map<std::string, std::int64_t> partitions(Sql& sql) {
    std::map<std::string, std::int64_t> found;
    for (const Row& row : sql.query("SELECT inhrelid::regclass::text FROM pg_inherits WHERE inhparent = "
                                    "'samples'::regclass")) {
        found[text(row[0])] = integer(sql.query("SELECT COUNT(*) FROM " + text(row[0]))[0][0]);
    }
    return found;
}

TEST_P(PostgresStoreTest, HasAPartitionForEachDayAndDropsWholeOnes) {
    constexpr std::int64_t kDay = 86'400'000;
    const Received batch[] = {arrived(oneSample("a")), arrived(oneSample("b"), "", kNow + kDay),
                              arrived(oneSample("c"), "", kNow + 2 * kDay)};
    EXPECT_THAT(outcomes(store.put(batch)), Each(Outcome::Stored));
    EXPECT_THAT(partitions(store.sql()),
                ElementsAre(Pair("samples_20231114", 1), Pair("samples_20231115", 1),
                            Pair("samples_20231116", 1), Pair("samples_20231117", 0)))
        << "the next day's is made ahead";

    const Deleted deleted = deleteAll(kNow + 2 * kDay);
    EXPECT_EQ(deleted.reports, 2);
    EXPECT_EQ(deleted.samples, 2);
    EXPECT_THAT(partitions(store.sql()),
                ElementsAre(Pair("samples_20231116", 1), Pair("samples_20231117", 0)));
    EXPECT_EQ(count("gnss_positions"), 1);
    EXPECT_EQ(store.put(batch)[0].outcome, Outcome::Stored) << "the partition is made again";
    const auto described = store.sql().query(
        "SELECT col_description('gnss_positions'::regclass, attnum) FROM pg_attribute "
        "WHERE attrelid = 'gnss_positions'::regclass AND attname = 'latitude'");
    EXPECT_EQ(text(described[0][0]), "deg: Geographic latitude, WGS 84, north positive.");
}

TEST_P(PostgresStoreTest, KeepsAsideOnlyTheEnvelopeThatTheDatabaseRefuses) {
    const Received batch[] = {
        arrived(oneSample("a")),
        arrived(envelopeText("b", R"([{"propertyValuePairs":{"latitude":1e-999999},"timestamp":"1"}])")),
        arrived(oneSample("c"))};
    const auto results = store.put(batch);
    ASSERT_THAT(outcomes(results), ElementsAre(Outcome::Stored, Outcome::Unusable, Outcome::Stored));
    EXPECT_EQ(results[1].messageId, "b");
    EXPECT_THAT(results[1].reason, HasSubstr("numeric"));
    EXPECT_EQ(count("samples"), 2);

    kyo::Json::Value health;
    health["odd"] = std::string("a\0b\\u0000 \xed\xb0\x80 \xff", 15);
    store.setHealth("vlm/bench", health, kNow);
    EXPECT_EQ(integer(store.sql().query("SELECT health_at FROM vehicles")[0][0]), kNow);
    EXPECT_EQ(store.put({batch, 1})[0].outcome, Outcome::Repeated);
}

TEST_P(PostgresStoreTest, TakesTheSameEnvelopesAndVehiclesFromSeveralInstancesOnce) {
    constexpr int kEnvelopes = 40;
    constexpr int kVehicles = 7;
    std::vector<Received> batch;
    for (int i = 0; i < kEnvelopes; ++i) {
        batch.push_back(arrived(oneSample(std::to_string(i))));
        batch.back().prefix += std::to_string(i % kVehicles);
    }
    std::atomic<std::ptrdiff_t> stored{0};
    std::atomic<std::ptrdiff_t> taken{0};
    Together(4, [&](int instance) {
        auto mine = batch;
        std::ranges::rotate(mine, mine.begin() + instance * 10);
        std::vector<Presence> present;
        for (int i = 0; i < kVehicles; ++i) {
            present.push_back({"vlm/bench" + std::to_string((i + instance) % kVehicles), true, "21", false});
        }
        Store another(where);
        const std::string name = "instance " + std::to_string(instance);
        another.transact([&name](Sql& sql) { renewInstance(sql, name, std::chrono::minutes(1)); });
        EXPECT_TRUE(another.setPresence(present, name, kNow));
        taken += std::ranges::count(present, true, &Presence::isOurs);
        const auto results = outcomes(another.put(mine));
        EXPECT_THAT(results, Each(Ne(Outcome::Failed)));
        stored += std::ranges::count(results, Outcome::Stored);
    }).join();
    EXPECT_EQ(stored, kEnvelopes);
    EXPECT_EQ(taken, kVehicles) << "each vehicle has one instance";
    EXPECT_EQ(count("samples"), kEnvelopes);
    EXPECT_EQ(integer(store.sql().query("SELECT SUM(reports) FROM vehicles")[0][0]), kEnvelopes);
}

}  // namespace
}  // namespace vlmBackend::store
