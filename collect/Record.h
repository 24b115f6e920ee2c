#pragma once
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// A complete record on its way to the next report: its text, which is written once, and what the pipeline
/// asks of it before that.
struct Record {
    Record() = default;
    /// Writes the record.
    explicit Record(const kyo::Json::Value& record);

    std::string text;            ///< base/CompactJson.h; without room to spare, as many records may wait
    std::string collectorName;   ///< the configuration's bytes; empty for a record without one
    std::int64_t timestamp = 0;  ///< milliseconds; 0 for a record without one
};

}  // namespace vlmProd
