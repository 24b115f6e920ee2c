#include "json/TextLimits.h"

#include "tests/support/Test.h"

TEST(TextLimits, NameWhatExceedsThemAndIgnoreStringsAndComments) {
    const vlmProd::TextLimits limits{60, 3, 6};
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
        EXPECT_EQ(vlmProd::isWithin(limits, text, fault), *expected == '\0') << text;
        EXPECT_EQ(fault, expected) << text;
    }
}
