#pragma once
#include <string>
#include <utility>
#include <vector>

#include "kyo/Json.h"

namespace vlmProd {

/// What one collector held at a tick, on its way to the reports: compact text, which goes into them as it
/// stands, and the collector's name, by which they choose.
struct SignalCollection {
    SignalCollection() = default;
    SignalCollection(std::string name, std::string json)
        : collectName(std::move(name)), text(std::move(json)) {}
    /// Writes the collection; its name is that of its member "collectName", or empty.
    explicit SignalCollection(const kyo::Json::Value& collection);

    std::string collectName;
    std::string text;
};

std::vector<const SignalCollection*> pointersTo(const std::vector<SignalCollection>& collections);
/// Appends a JSON array of them.
void appendArray(std::string& out, const std::vector<const SignalCollection*>& collections);
std::string arrayText(const std::vector<const SignalCollection*>& collections);

}  // namespace vlmProd
