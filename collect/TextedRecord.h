#pragma once
#include <memory>
#include <string>
#include <utility>

#include "app/JsonFields.h"
#include "kyo/Json.h"

namespace vlmProd {

/// A record on its way, with its compact text once somebody has needed it: with progress messages on, the
/// same text stands in many of them, and writing it costs more than all else that happens to a record.
struct TextedRecord {
    TextedRecord() = default;
    explicit TextedRecord(kyo::Json::Value record, std::shared_ptr<const std::string> recordText = nullptr)
        : value(std::move(record)), text(std::move(recordText)) {}

    /// The record's text, written at most once. The value must not change afterwards.
    const std::string& asText() {
        if (!text) {
            text = std::make_shared<const std::string>(compactText(value));
        }
        return *text;
    }

    kyo::Json::Value value;
    std::shared_ptr<const std::string> text;  ///< empty, or the compact text of `value`
};

}  // namespace vlmProd
