#pragma once
#include <chrono>
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// A complete record: its text, which is written once, and the two members that the pipeline needs until the
/// next report.
struct Record {
    Record() = default;
    explicit Record(const kyo::Json::Value& record);

    std::string text;            ///< base/CompactJson.h; without spare capacity, as many records may wait
    std::string collectorName;   ///< the configuration's bytes; empty for a record without one
    std::int64_t timestamp = 0;  ///< ms; 0 for a record without one
    std::chrono::steady_clock::time_point begin{};  ///< when its conversion began; the epoch: not known
};

}  // namespace vlmProd
