// The compact JSON text of records, reports and envelopes must read back as the same value.
#include <cmath>
#include <limits>

#include "tests/support/Test.h"

using namespace vlmTest;

namespace {

std::string text(const Value& value) {
    return kyo::Json::FastWriter().write(value);
}

Value readBack(const Value& value) {
    Value result;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text(value), result)) << text(value);
    return result;
}

}  // namespace

TEST(JsonText, NumbersReadBackWithTypeAndValue) {
    Value all(kyo::Json::arrayValue);
    for (const double number : {0.1, -0.0, 5.0, 1e300, 5e-324, 123456789.123456789, 1.0 / 3, 48.137154,
                                std::numeric_limits<double>::max()}) {
        all.append(number);
    }
    all.append(std::numeric_limits<kyo::Json::Int64>::min());
    all.append(std::numeric_limits<kyo::Json::UInt64>::max());
    all.append(true);
    all.append(Value());
    const Value back = readBack(all);
    ASSERT_EQ(back.size(), all.size());
    for (kyo::Json::ArrayIndex i = 0; i < all.size(); ++i) {
        EXPECT_EQ(back[i], all[i]) << text(all[i]);
        EXPECT_EQ(back[i].isDouble(), all[i].isDouble()) << text(all[i]);
    }
    EXPECT_EQ(text(Value(0.1)), "0.1");
    EXPECT_EQ(text(Value(5.0)), "5.0");  // stays a real number
    EXPECT_EQ(text(Value(5)), "5");
    for (const double number : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        EXPECT_EQ(text(Value(number)), "null");
    }
}

TEST(JsonText, IsAsciiWithoutWhiteSpaceAndReadsBackAsTheSameText) {
    Value value(kyo::Json::objectValue);
    const std::string odd("\"\\/\b\f\n\r\t\x01 \x7F M\xC3\xBCnchen \xE2\x82\xAC \xF0\x9F\x9A\x97");
    value["k\xC3\xA4y"] = odd;
    value["zero"] = std::string("a\0b", 3);
    value["empty"] = Value(kyo::Json::objectValue);
    value["list"].append("x");
    value["list"].append(Value(kyo::Json::arrayValue));
    const std::string written = text(value);
    EXPECT_EQ(readBack(value), value);
    EXPECT_TRUE(std::ranges::all_of(written, [](char c) { return c >= ' ' && c <= '~'; })) << written;
    EXPECT_THAT(written, AllOf(HasSubstr(R"("list":["x",[]])"), HasSubstr(R"(\ud83d\ude97)")));
    // Bytes that are no UTF-8 are replaced.
    for (const char* const bytes :
         {"\xFF", "\xC3", "a\xE2\x82z", "\xC0\xAF", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\x80"}) {
        EXPECT_THAT(text(Value(bytes)), HasSubstr("\\ufffd"));
        readBack(Value(bytes));
    }
}

TEST(JsonText, WhatIsNestedTooDeepIsRefusedBothWaysWithoutAnException) {
    Value deep;
    for (int i = 0; i < 3000; ++i) {
        Value outer(kyo::Json::arrayValue);
        outer.append(Value());
        outer[0].swap(deep);
        deep.swap(outer);
    }
    std::string out = "before ";
    EXPECT_FALSE(kyo::Json::appendCompact(out, deep));
    EXPECT_EQ(out, "before null");

    kyo::Json::Reader reader;
    Value result;
    EXPECT_FALSE(reader.parse(std::string(100'000, '['), result));
    EXPECT_TRUE(result.isNull());
    EXPECT_FALSE(reader.getFormattedErrorMessages().empty());
}
