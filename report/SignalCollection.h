#pragma once
#include <string>
#include <utility>
#include <vector>

#include "kyo/Json.h"

namespace vlmProd {

/// What one collector held at a tick.
struct SignalCollection {
    SignalCollection() = default;
    SignalCollection(std::string name, std::string json)
        : collectName(std::move(name)), text(std::move(json)) {}
    /// Writes the collection as text. The name is its member "collectName", or empty.
    explicit SignalCollection(const kyo::Json::Value& collection);

    std::string collectName;  ///< the bytes of the configuration; a report selects by it
    std::string text;         ///< base/CompactJson.h; goes into the reports as it is
};

std::vector<const SignalCollection*> pointersTo(const std::vector<SignalCollection>& collections);
/// A JSON array of them.
std::string arrayText(const std::vector<const SignalCollection*>& collections);

}  // namespace vlmProd
