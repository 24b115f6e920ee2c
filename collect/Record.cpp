#include "collect/Record.h"

#include "json/JsonFields.h"

namespace vlmProd {

namespace {

constexpr std::size_t kKeptRoom = std::size_t{64} * 1024;  // a larger buffer is freed after use

/// Returns the record's text without spare capacity.
std::string written(const kyo::Json::Value& record) {
    thread_local std::string room;
    room.clear();
    kyo::Json::appendCompact(room, record);
    std::string text(room);
    if (room.capacity() > kKeptRoom) {
        std::string().swap(room);
    }
    return text;
}

}  // namespace

Record::Record(const kyo::Json::Value& record)
    : text(written(record)), collectorName(textOf(member(record, "collectorName"))) {
    toInt64(member(record, "timestamp"), timestamp);
}

}  // namespace vlmProd
