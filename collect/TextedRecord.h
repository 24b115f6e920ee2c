#pragma once
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// A record on its way to the next report: its compact text, which is written once, and what the pipeline
/// asks of it before that. A waiting record costs little more than its text, as nothing needs the values any
/// more: a tick takes its samples out of the texts.
struct TextedRecord {
    TextedRecord() = default;
    /// Writes the record. A number that JSON cannot hold would spoil the report: that member is left out,
    /// with a message.
    explicit TextedRecord(const kyo::Json::Value& record);
    /// The same with the record's compact text, which the caller has written already.
    TextedRecord(const kyo::Json::Value& record, std::string recordText);

    std::string text;
    std::string collectorName;   ///< empty for a record without one
    std::int64_t timestamp = 0;  ///< milliseconds; 0 for a record without one
};

}  // namespace vlmProd
