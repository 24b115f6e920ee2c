#include "collect/CollectionWriter.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "base/CompactObject.h"
#include "base/JsonFields.h"
#include "kyo/Json.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

constexpr std::string_view kKnown[] = {"collectorName", "serviceName", "resName", "index", "timestamp"};

bool isInteger(std::string_view json) {
    const std::string_view digits = json.substr(json.starts_with('-') ? 1 : 0);
    return !digits.empty() &&
           std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The value of a member's text. Nearly all are plain texts and small integers, for which a reader is dear.
Value read(const std::string& json) {
    if (json.size() >= 2 && json.front() == '"' && json.find('\\') == std::string::npos) {
        return Value(json.data() + 1, json.data() + json.size() - 1);
    }
    kyo::Json::Int64 number = 0;
    if (isInteger(json) &&
        std::from_chars(json.data(), json.data() + json.size(), number).ec == std::errc()) {
        return Value(number);
    }
    Value value;
    kyo::Json::Reader().parse(json, value);
    return value;
}

/// A member's text as the text of a JSON string.
std::string quoted(const std::string& json) {
    return isInteger(json) ? '"' + json + '"' : compactText(Value(textOf(read(json))));
}

}  // namespace

CollectionWriter::Known CollectionWriter::knownOf(std::string_view name) {
    return static_cast<Known>(std::find(std::begin(kKnown), std::end(kKnown), name) - std::begin(kKnown));
}

std::string_view CollectionWriter::add(std::string_view record) {
    if (m_count++ != 0) {
        m_samples.push_back(',');
    }
    const std::size_t begin = m_samples.size();
    m_samples.append(R"({"propertyValuePairs":{)");
    bool first = true;
    for (CompactObject members(record); members.next();) {
        const Known known = knownOf(members.name());
        if (known == Count) {
            if (!first) {
                m_samples.push_back(',');
            }
            first = false;
            m_samples.append(members.whole());
        } else if (m_last[known] != members.value()) {
            m_last[known] = members.value();
            if (known == Timestamp) {
                m_quotedTimestamp = quoted(m_last[known]);
            }
        }
    }
    m_samples.append(R"(},"timestamp":)").append(m_quotedTimestamp).push_back('}');
    return std::string_view(m_samples).substr(begin);
}

SignalCollection CollectionWriter::finish() {
    Value collection(kyo::Json::objectValue);
    const auto last = [this](Known known) {
        return Value(m_last[known].empty() ? std::string() : textOf(read(m_last[known])));
    };
    int index = 0;
    toInt(m_last[Index].empty() ? Value() : read(m_last[Index]), index);
    collection[StaticString("collectName")] = last(CollectorName);
    collection[StaticString("serviceName")] = last(ServiceName);
    collection[StaticString("resourceName")] = last(ResName);
    collection[StaticString("historyLength")] = m_count;
    collection[StaticString("lagLength")] = 0;
    collection[StaticString("index")] = index;
    // A text here, but the tick's time as a number in an empty collection: readers know both.
    collection[StaticString("endOfHistory")] = last(Timestamp);
    collection[StaticString("causeOfSubmit")] = 0;
    collection[StaticString("samples")] = Value(kyo::Json::arrayValue);
    const std::string frame = compactText(collection);
    // In a string the quotes would have backslashes.
    constexpr std::string_view kSamples = R"("samples":[)";
    const std::size_t at = frame.find(kSamples) + kSamples.size();
    std::string text;
    text.reserve(frame.size() + m_samples.size());
    text.append(frame, 0, at).append(m_samples).append(frame, at);
    return {collection["collectName"].asString(), std::move(text)};
}

}  // namespace vlmProd
