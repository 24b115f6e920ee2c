#include "backend/store/Store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backend/Backend.h"
#include "backend/store/Schema.h"
#include "backend/store/Sqlite.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::store {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;
using vlmTest::envelopeText;
using vlmTest::positionText;

constexpr std::int64_t kNow = 1'700'000'100'000;

Received arrived(std::string text, std::string reason = "", std::int64_t at = kNow) {
    return {"vlm/bench", std::move(text), std::move(reason), "17", 10, at};
}

std::string oneSample(const std::string& id, long long ms = kNow) {
    return envelopeText(id, "[" + positionText(ms, 48, 9) + "]");
}

class StoreTest : public ::testing::Test {
  protected:
    std::int64_t count(const std::string& what) {
        return integer(store.sql().query("SELECT COUNT(*) FROM " + what)[0][0]);
    }

    const vlmTest::TemporaryFolder folder;
    const std::string file = folder.file("vehicles.db");
    Store store{file};
};

TEST_F(StoreTest, KeepsEachEnvelopeOnceAndWhatIsUnusableWithItsReason) {
    const Received batch[] = {
        arrived(oneSample("a")), arrived(oneSample("a")), arrived("{\"messageId\":\"u\"}"),
        arrived("\x28\xb5garbage", "no frame"),
        arrived(envelopeText("b", "[{\"propertyValuePairs\":{},\"timestamp\":\"x\"}]"))};
    auto results = store.put(batch);
    ASSERT_THAT(results, SizeIs(5));
    EXPECT_EQ(results[0].outcome, Outcome::Stored);
    EXPECT_EQ(results[0].report, "Trip #3");
    EXPECT_EQ(results[1].outcome, Outcome::Repeated);
    EXPECT_EQ(results[2].outcome, Outcome::Unusable);
    EXPECT_EQ(results[2].messageId, "u") << "the vehicle gets a result for it";
    EXPECT_EQ(results[3].outcome, Outcome::Unusable);
    EXPECT_EQ(results[4].outcome, Outcome::Unusable);
    EXPECT_EQ(store.put({batch, 1})[0].outcome, Outcome::Repeated);

    EXPECT_EQ(count("samples"), 1);
    EXPECT_EQ(
        count(
            "gnss_positions WHERE vehicle = 'bench' AND latitude = 48 AND time = '2023-11-14T22:15:00.000Z'"),
        1);
    const auto kept = store.sql().query("SELECT reason, payload FROM unusable ORDER BY id");
    ASSERT_THAT(kept, SizeIs(3));
    EXPECT_EQ(text(kept[1][0]), "no frame");
    EXPECT_EQ(std::get<Bytes>(kept[1][1]).data, "\x28\xb5garbage");
    EXPECT_EQ(text(store.sql().query("SELECT spool_number FROM reports")[0][0]), "17");
}

TEST_F(StoreTest, StoresNothingOfABatchThatTheDatabaseDoesNotTakeAndAllOfItAfterwards) {
    std::vector<std::string> said;
    Settings settings;
    settings.database = &store;
    Backend backend(settings, [&said](const std::string& line) { said.push_back(line); });
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

TEST_F(StoreTest, DeletesWhatIsTooOldAndKeepsTheLogOfTheFileShort) {
    for (int i = 0; i < 450; ++i) {
        const Received one = arrived(oneSample(std::to_string(i)), "", kNow + i);
        ASSERT_EQ(store.put({&one, 1})[0].outcome, Outcome::Stored);
    }
    EXPECT_LT(store.sql().walBytes(), Sqlite::kWalLimit);
    const Kept deleted = store.deleteBefore(kNow + 449);
    EXPECT_EQ(deleted.reports, 449);
    EXPECT_EQ(deleted.samples, 449);
    EXPECT_EQ(count("samples"), 1);
    EXPECT_EQ(count("reports"), 1);
}

TEST_F(StoreTest, RewritesViewsOfOtherDescriptionsAndRefusesANewerDatabase) {
    const Received one = arrived(oneSample("a"));
    store.put({&one, 1});
    store.sql().script(
        "DROP VIEW gnss_positions; CREATE VIEW gnss_positions AS SELECT 1 AS latitude;"
        "UPDATE settings SET value = 'other' WHERE name = 'views'");
    EXPECT_EQ(integer(Store(file).sql().query("SELECT latitude FROM gnss_positions")[0][0]), 48);

    store.sql().script("UPDATE settings SET value = '99' WHERE name = 'version'");
    try {
        Store newer(file);
        FAIL() << "a newer database was taken";
    } catch (const DatabaseError& error) {
        EXPECT_THAT(error.what(), HasSubstr("version 99"));
    }
}

}  // namespace
}  // namespace vlmBackend::store
