#include "collect/TextedRecord.h"

#include <cmath>
#include <utility>
#include <vector>

#include "base/JsonFields.h"
#include "base/VlmLog.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr std::size_t kKeptRoom = std::size_t{64} * 1024;  // more than that is given back

/// The text without room to spare, however it grew.
std::string written(const Value& record) {
    thread_local std::string room;
    room.clear();
    kyo::Json::appendCompact(room, record);
    std::string text(room);
    if (room.capacity() > kKeptRoom) {
        std::string().swap(room);
    }
    return text;
}

bool hasNonFinite(const Value& value) {
    for (const Value& item : value) {
        if (item.type() == kyo::Json::realValue ? !std::isfinite(item.asDouble()) : hasNonFinite(item)) {
            return true;
        }
    }
    return false;
}

void dropNonFinite(Value& value, const std::string& collector) {
    std::vector<std::string> unusable;
    for (auto item = value.begin(); item != value.end(); ++item) {
        if (item->type() == kyo::Json::realValue && !std::isfinite(item->asDouble())) {
            if (value.isArray()) {
                *item = Value();
            } else {
                unusable.push_back(item.name());
            }
        } else if (item->isObject() || item->isArray()) {
            dropNonFinite(*item, collector);
        }
    }
    for (const auto& name : unusable) {
        value.removeMember(name);
        VLM_LOG(3, "A record of the Collector: " << collector << " has no finite number in '" << name
                                                 << "'; that member is left out");
    }
}

}  // namespace

TextedRecord::TextedRecord(const Value& record) : TextedRecord(record, written(record)) {}

TextedRecord::TextedRecord(const Value& record, std::string recordText)
    : text(std::move(recordText)), collectorName(textOf(vlmProd::member(record, "collectorName"))) {
    toInt64(member(record, "timestamp"), timestamp);
    // Such a number is written as null, which hardly any record has.
    if (text.find("null") != std::string::npos && hasNonFinite(record)) {
        Value usable(record);
        dropNonFinite(usable, collectorName);
        text = written(usable);
    }
}

}  // namespace vlmProd
