#include "collect/CollectionWriter.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <vector>

#include "base/CompactObject.h"
#include "base/JsonFields.h"
#include "collect/TextedRecord.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordValue.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using vlmTest::valueOf;

const std::string kNasty =
    R"({"":0,"a\"b":"}],{[","array":[1,[2,{"x":"]"}],"\\"],"back\\":"\\","comma":",","empty":{},"minus":-1.5e-7,)"
    R"("none":[],"nested":{"collectorName":"inner","deep":[{}]},"null":null,"quote":"\"","true":true,"\u00e4":"\u20ac"})";

TEST(CompactObject, EndsWhereTheTextIsNoObject) {
    for (const char* const text : {"", "{}", "[1]", "{1:2}", "{\"a\"}", "{\"a\":}"}) {
        EXPECT_FALSE(CompactObject(text).next()) << text;
    }
    // Cut off anywhere, in memory of its own so that a sanitizer sees a step too far.
    for (std::size_t length = 0; length < kNasty.size(); ++length) {
        const std::vector<char> cut(kNasty.begin(), kNasty.begin() + static_cast<std::ptrdiff_t>(length));
        for (CompactObject walk(std::string_view(cut.data(), cut.size())); walk.next();) {
            EXPECT_TRUE(kNasty.find(walk.whole()) != std::string::npos);
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

TEST(CollectionWriter, WritesTheTextThatTheWriterMakesOfTheSamples) {
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
    CollectionWriter writer;
    std::vector<std::string> before;
    for (const auto& record : records) {
        before.push_back(record);
        const std::string sample(writer.add(record));
        const Value all = slowly(before);
        EXPECT_EQ(sample, compactText(all[all.size() - 1]));
    }
    const SignalCollection collection = writer.finish();
    EXPECT_EQ(collection.collectName, "last");
    EXPECT_EQ(collection.text,
              R"({"causeOfSubmit":0,"collectName":"last","endOfHistory":"99","historyLength":10,"index":-7,)"
              R"("lagLength":0,"resourceName":"5","samples":)" +
                  compactText(slowly(records)) + R"(,"serviceName":"true"})");
}

TEST(TextedRecord, LeavesOutANumberThatJsonCannotHoldAlsoWhenTheTextIsThere) {
    Value record = valueOf(R"({"collectorName":"c","list":[1],"none":null})");
    record["altitude"] = std::numeric_limits<double>::infinity();
    record["list"].append(std::numeric_limits<double>::quiet_NaN());
    vlmTest::LogCapture log;
    EXPECT_EQ(TextedRecord(record, compactText(record)).text,
              R"({"collectorName":"c","list":[1,null],"none":null})");
    EXPECT_THAT(log.messages(3), testing::ElementsAre("A record of the Collector: c has no finite number in "
                                                      "'altitude'; that member is left out"));
}

}  // namespace
}  // namespace vlmProd
