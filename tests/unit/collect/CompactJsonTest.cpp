#include "base/CompactJson.h"

#include "collect/CollectorImpl.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

const std::string kNasty =
    R"({"":0,"a\"b":"}],{[","array":[1,[2,{"x":"]"}],"\\"],"back\\":"\\","comma":",","empty":{},"minus":-1.5e-7,)"
    R"("none":[],"nested":{"collectorName":"inner","deep":[{}]},"null":null,"quote":"\"","true":true,"\u00e4":"\u20ac"})";

TEST(CompactJson, EndsWhereTheTextIsNoObject) {
    for (const char* const text : {"", "{}", "[1]", "{1:2}", "{\"a\"}", "{\"a\":}"}) {
        EXPECT_FALSE(ObjectReader(text).next()) << text;
    }
    // Cut off anywhere, in memory of its own so that a sanitizer sees a step too far.
    for (std::size_t length = 0; length < kNasty.size(); ++length) {
        const std::vector<char> cut(kNasty.begin(), kNasty.begin() + static_cast<std::ptrdiff_t>(length));
        for (ObjectReader walk(std::string_view(cut.data(), cut.size())); walk.next();) {
            EXPECT_TRUE(kNasty.find(walk.member()) != std::string::npos);
        }
    }
}

TEST(CompactJson, TakesTheSamplesOutOfTheRecords) {
    const std::string nasty = compactText(valueOf(kNasty));
    const std::pair<std::string, std::string> cases[] = {
        // record, pairs, time stamp
        {R"({"a":1,"collectorName":"c","index":3,"resName":"r","serviceName":"s","timestamp":17,"z":{"index":1}})",
         R"({"a":1,"z":{"index":1}},"timestamp":"17")"},
        {R"({"collectorName":"c\u00e4\"","timestamp":"some\ttime"})", R"({},"timestamp":"some\ttime")"},
        {R"({"b":[1.5,"x"]})", R"({"b":[1.5,"x"]},"timestamp":"some\ttime")"},
        {"null", R"({},"timestamp":"some\ttime")"},
        {R"("{\"timestamp\":1}")", R"({},"timestamp":"some\ttime")"},
        {R"({"timestamp":18446744073709551615})", R"({},"timestamp":"18446744073709551615")"},
        {R"({"timestamp":[1]})", R"({},"timestamp":"")"},
        {nasty, nasty + R"(,"timestamp":"")"},
        {R"({"index":[7],"resName":5,"serviceName":true,"timestamp":null})", R"({},"timestamp":"")"},
        {R"({"collectorName":"last","index":-7,"timestamp":99,"zz":0})", R"({"zz":0},"timestamp":"99")"},
    };
    CollectorImpl collector("c", 1, "s", "r", 3, "minute", CollectorOnEventType::Clock);
    std::string samples;
    for (const auto& [text, sample] : cases) {
        Record record;
        record.text = text;
        collector.insertRecord(std::move(record));
        samples += (samples.empty() ? "" : ",") + (R"({"propertyValuePairs":)" + sample) + "}";
    }
    const SignalCollection collection = collector.buildCollection();
    EXPECT_EQ(collection.collectName, "last");
    EXPECT_EQ(collection.text,
              R"({"causeOfSubmit":0,"collectName":"last","endOfHistory":"99","historyLength":10,"index":-7,)"
              R"("lagLength":0,"resourceName":"5","samples":[)" +
                  samples + R"(],"serviceName":"true"})");
}

}  // namespace
