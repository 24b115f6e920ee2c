// Reading documents whose content nobody vouches for.
#include "app/JsonFields.h"

#include <gtest/gtest.h>

#include <limits>

#include "app/FileText.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using kyo::Json::Value;
using namespace vlmProd;

TEST(JsonFields, asking_for_an_absent_member_or_element_adds_none) {
    Value object(kyo::Json::objectValue);
    EXPECT_TRUE(member(object, "absent").isNull());
    EXPECT_TRUE(object.empty());
    EXPECT_TRUE(member(Value("text"), "absent").isNull());
    EXPECT_TRUE(member(Value(kyo::Json::arrayValue), "absent").isNull());
    Value array(kyo::Json::arrayValue);
    array.append(7);
    EXPECT_EQ(element(array, 0).asInt(), 7);
    EXPECT_TRUE(element(array, 1).isNull());
    EXPECT_TRUE(element(object, 0).isNull());
    EXPECT_EQ(array.size(), 1u);
}

TEST(JsonFields, a_conversion_that_the_library_would_throw_on_is_refused) {
    std::string text = "before";
    EXPECT_FALSE(toText(Value(kyo::Json::arrayValue), text));
    EXPECT_EQ(text, "");
    EXPECT_FALSE(toText(Value(kyo::Json::objectValue), text));
    int number = 5;
    for (const Value& value :
         {Value("2"), Value(2147483648U), Value(Value::Int64(-2147483649LL)), Value(1e10),
          Value(std::numeric_limits<double>::quiet_NaN()), Value(kyo::Json::arrayValue)}) {
        EXPECT_FALSE(toInt(value, number)) << compactText(value);
        EXPECT_EQ(number, 0);
    }
    std::int64_t large = 5;
    for (const Value& value :
         {Value("2"), Value(Value::UInt64(9223372036854775808ULL)), Value(9223372036854775808.0),
          Value(-1e19), Value(std::numeric_limits<double>::infinity()),
          Value(std::numeric_limits<double>::quiet_NaN()), Value(kyo::Json::objectValue)}) {
        EXPECT_FALSE(toInt64(value, large)) << compactText(value);
        EXPECT_EQ(large, 0);
    }
}

TEST(JsonFields, what_the_library_converts_converts) {
    std::string text;
    EXPECT_TRUE(toText(Value(), text));
    EXPECT_EQ(text, "");
    EXPECT_TRUE(toText(Value(17), text));
    EXPECT_EQ(text, "17");
    EXPECT_TRUE(toText(Value(true), text));
    EXPECT_EQ(text, "true");
    int number = 0;
    EXPECT_TRUE(toInt(Value(-2147483647 - 1), number));
    EXPECT_EQ(number, -2147483647 - 1);
    EXPECT_TRUE(toInt(Value(2.7), number));
    EXPECT_EQ(number, 2);
    EXPECT_TRUE(toInt(Value(), number));
    EXPECT_EQ(number, 0);
    std::int64_t large = 0;
    EXPECT_TRUE(toInt64(Value(Value::Int64(-9223372036854775807LL - 1)), large));
    EXPECT_EQ(large, -9223372036854775807LL - 1);
    EXPECT_TRUE(toInt64(Value(true), large));
    EXPECT_EQ(large, 1);
    EXPECT_TRUE(toInt64(Value(3e9), large));
    EXPECT_EQ(large, 3000000000LL);
}

TEST(FileText, is_read_whole_and_binary_and_refused_for_what_is_no_file) {
    const vlmTest::TemporaryFolder folder;
    const std::string bytes("a\0\r\n\xff", 5);
    std::string text = "before";
    EXPECT_TRUE(readWholeFile(folder.write("file", bytes), text));
    EXPECT_EQ(text, bytes);
    EXPECT_FALSE(readWholeFile(folder.file("absent"), text));
    EXPECT_EQ(text, "");
    EXPECT_FALSE(readWholeFile(folder.path(), text));
    EXPECT_FALSE(readWholeFile("", text));
}

}  // namespace
