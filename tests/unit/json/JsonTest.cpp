// Reading untrusted documents.
#include "json/JsonFields.h"

#include "json/TextLimits.h"
#include "tests/support/Test.h"

#include <limits>

namespace {

using namespace vlmTest;
using namespace vlmProd;

TEST(JsonFields, ANumberIsRefusedBeyondTheLimitsOfItsType) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    int number = 0;
    EXPECT_TRUE(toInt(Value(-2147483647 - 1), number));
    EXPECT_EQ(number, -2147483647 - 1);
    for (const Value& value : {Value(2147483648U), Value(Value::Int64(-2147483649LL)), Value(nan)}) {
        EXPECT_FALSE(toInt(value, number)) << compactText(value);
        EXPECT_EQ(number, 0);
    }
    std::int64_t large = 0;
    EXPECT_TRUE(toInt64(Value(Value::Int64(-9223372036854775807LL - 1)), large));
    EXPECT_EQ(large, -9223372036854775807LL - 1);
    for (const Value& value : {Value(Value::UInt64(9223372036854775808ULL)), Value(9223372036854775808.0),
                               Value(-1e19), Value(nan)}) {
        EXPECT_FALSE(toInt64(value, large)) << compactText(value);
        EXPECT_EQ(large, 0);
    }
}

TEST(TextLimits, NameWhatExceedsThemAndIgnoreStringsAndComments) {
    const TextLimits limits{60, 3, 6};
    const std::pair<const char*, const char*> cases[] = {
        {"{\"a\": [[1, 2]], \"b\": 3}", ""},
        {"[\"[[[[[ , , , , , , \\\" [[[[\"]", ""},
        {"/* \" */ [ // \"\n[[1]]]", ""},
        {"]]]]}}[[[", ""},
        {"/* \" */ [[[[ // \"", "at most 3 levels are expected, exceeded at offset 11"},
        {"[// \"\r[[[", "at most 3 levels are expected, exceeded at offset 8"},
        {"/*/[[[[*/ [\"\\\\\",[[[", "at most 3 levels are expected, exceeded at offset 18"},
        {"[1,2,3,4,5,6]", "at most 6 values are expected, exceeded at offset 10"},
        {"                                                             ",
         "at most 60 bytes are expected, found 61"},
    };
    for (const auto& [text, expected] : cases) {
        std::string fault;
        EXPECT_EQ(isWithin(limits, text, fault), *expected == '\0') << text;
        EXPECT_EQ(fault, expected) << text;
    }
}

}  // namespace
