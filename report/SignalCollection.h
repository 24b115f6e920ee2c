#pragma once
#include <string>
#include <utility>
#include <vector>

#include "kyo/Json.h"

namespace vlmProd {

/// What one collector held at a tick, on its way to the reports.
struct SignalCollection {
    SignalCollection() = default;
    SignalCollection(std::string name, std::string json)
        : collectName(std::move(name)), text(std::move(json)) {}
    /// Writes the collection; its name is that of its member "collectName", or empty.
    explicit SignalCollection(const kyo::Json::Value& collection);

    std::string collectName;  ///< by which a report chooses: the configuration's bytes
    std::string text;         ///< base/CompactJson.h; goes into the reports as it is
};

std::vector<const SignalCollection*> pointersTo(const std::vector<SignalCollection>& collections);
/// A JSON array of them.
std::string arrayText(const std::vector<const SignalCollection*>& collections);

}  // namespace vlmProd
