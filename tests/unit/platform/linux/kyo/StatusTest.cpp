#include "tests/support/Test.h"

using namespace vlmTest;
using kyo::Status;

TEST(Status, TheSnapshotNestsDottedNamesAndReadsGaugesAsTheyAreNow) {
    Status::counter("test.one.dropped").add(3);
    Status::counter("test.one.dropped").add();
    std::atomic<int> level{7};
    Status::gauge("test.level", [&] { return Value(0); });
    Status::gauge("test.level", [&level] { return Value(level.load()); });
    const Value first = Status::snapshot();
    level = 8;
    const Value second = Status::snapshot();
    EXPECT_EQ(first["test"]["one"]["dropped"].asUInt64(), 4u);
    EXPECT_EQ(first["test"]["level"].asInt(), 7);
    EXPECT_EQ(second["test"]["level"].asInt(), 8);
    Status::gauge("test.level", [] { return Value(); });  // no reference to local variables remains
}

TEST(Status, NamesThatMeetKeepBothValuesAndAGaugeMayThrowAndMayUseTheStatusItself) {
    Status::counter("meet").add(1);
    Status::counter("meet.inner").add(2);
    Status::counter("group.counted").add(4);
    Status::gauge("group", [] { return valueOf(R"({"read":5})"); });
    Status::gauge("bad.gauge", []() -> Value { throw std::runtime_error("no"); });
    Status::gauge("self.gauge", [] { return Value(Status::counter("self.count").value() == 0); });
    const Value snapshot = Status::snapshot();
    EXPECT_EQ(snapshot["meet"]["value"].asInt(), 1);
    EXPECT_EQ(snapshot["meet"]["inner"].asInt(), 2);
    EXPECT_EQ(snapshot["group"]["counted"].asInt(), 4);
    EXPECT_EQ(snapshot["group"]["read"].asInt(), 5);
    EXPECT_TRUE(snapshot["bad"]["gauge"].isNull());
    EXPECT_TRUE(snapshot["self"]["gauge"].asBool());
}
