// Reading documents whose content nobody vouches for.
#include "app/JsonFields.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using kyo::Json::Value;
using namespace vlmProd;

TEST(JsonFields, asking_for_an_absent_member_or_element_adds_none) {
    Value object(kyo::Json::objectValue);
    EXPECT_TRUE(member(object, "absent").isNull());
    EXPECT_TRUE(object.empty());
    EXPECT_TRUE(member(Value("text"), "absent").isNull());
    Value array(kyo::Json::arrayValue);
    array.append(7);
    EXPECT_EQ(element(array, 0).asInt(), 7);
    EXPECT_TRUE(element(array, 1).isNull());
    EXPECT_TRUE(element(object, 0).isNull());
    EXPECT_EQ(array.size(), 1u);
}

TEST(JsonFields, a_conversion_that_the_library_would_throw_on_is_refused) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Value array(kyo::Json::arrayValue);
    std::string text = "before";
    EXPECT_FALSE(toText(array, text));
    EXPECT_EQ(text, "");
    int number = 0;
    EXPECT_TRUE(toInt(Value(-2147483647 - 1), number));
    EXPECT_EQ(number, -2147483647 - 1);
    for (const Value& value : {Value("2"), Value(2147483648U), Value(Value::Int64(-2147483649LL)),
                               Value(1e10), Value(nan), array}) {
        EXPECT_FALSE(toInt(value, number)) << compactText(value);
        EXPECT_EQ(number, 0);
    }
    std::int64_t large = 0;
    EXPECT_TRUE(toInt64(Value(Value::Int64(-9223372036854775807LL - 1)), large));
    EXPECT_EQ(large, -9223372036854775807LL - 1);
    for (const Value& value : {Value("2"), Value(Value::UInt64(9223372036854775808ULL)),
                               Value(9223372036854775808.0), Value(-1e19), Value(nan), array}) {
        EXPECT_FALSE(toInt64(value, large)) << compactText(value);
        EXPECT_EQ(large, 0);
    }
}

}  // namespace
