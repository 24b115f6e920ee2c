#include "base/CompactJson.h"

#include "collect/CollectorImpl.h"
#include "tests/support/RecordValue.h"

namespace vlmProd {
namespace {

using namespace vlmTest;

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

/// What became of the records, sample by sample, by the library's own means.
Value slowly(const std::vector<std::string>& records) {
    Value samples(kyo::Json::arrayValue);
    std::string timestamp;
    for (const auto& text : records) {
        Value record = valueOf(text);
        if (!record.isObject()) {
            record = Value(kyo::Json::objectValue);
        }
        if (record.isMember("timestamp")) {
            timestamp = textOf(record["timestamp"]);
        }
        for (const char* known : {"collectorName", "serviceName", "resName", "index", "timestamp"}) {
            record.removeMember(known);
        }
        Value sample(kyo::Json::objectValue);
        sample["timestamp"] = timestamp;
        sample["propertyValuePairs"] = record;
        samples.append(sample);
    }
    return samples;
}

TEST(CompactJson, TakesTheSamplesOutOfTheRecordsAsReadingAndWritingThemWould) {
    const std::vector<std::string> records{
        R"({"a":1,"collectorName":"c","index":3,"resName":"r","serviceName":"s","timestamp":17,"z":{"index":1}})",
        R"({"collectorName":"c\u00e4\"","timestamp":"some\ttime"})",
        R"({"b":[1.5,"x"]})",
        "null",
        R"("{\"timestamp\":1}")",
        R"({"timestamp":18446744073709551615})",
        R"({"timestamp":[1]})",
        compactText(valueOf(kNasty)),
        R"({"index":[7],"resName":5,"serviceName":true,"timestamp":null})",
        R"({"collectorName":"last","index":-7,"timestamp":99,"zz":0})"};
    CollectorImpl collector("c", 1, "s", "r", 3, "minute", CollectorOnEventType::Clock);
    for (const auto& text : records) {
        Record record;
        record.text = text;
        collector.insertRecord(std::move(record));
    }
    const SignalCollection collection = collector.buildCollection();
    EXPECT_EQ(collection.collectName, "last");
    EXPECT_EQ(collection.text,
              R"({"causeOfSubmit":0,"collectName":"last","endOfHistory":"99","historyLength":10,"index":-7,)"
              R"("lagLength":0,"resourceName":"5","samples":)" +
                  compactText(slowly(records)) + R"(,"serviceName":"true"})");
}

}  // namespace
}  // namespace vlmProd
