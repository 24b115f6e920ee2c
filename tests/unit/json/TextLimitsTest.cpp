#include "json/TextLimits.h"

#include <gtest/gtest.h>

#include <string>

TEST(TextLimits, NameWhatExceedsThemAndIgnoreStringsAndComments) {
    const vlmProd::TextLimits limits{60, 3, 6};
    const struct {
        const char* text;
        const char* fault;
    } cases[] = {
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
    for (const auto& c : cases) {
        std::string fault;
        EXPECT_EQ(vlmProd::isWithin(limits, c.text, fault), *c.fault == '\0') << c.text;
        EXPECT_EQ(fault, c.fault) << c.text;
    }
}
