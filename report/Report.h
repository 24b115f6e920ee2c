#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "kyo/Json.h"

namespace vlmProd {

/// A report on its way to the backend. Its collections are many times as large as all the rest and stay the
/// text that they are; of the other members the envelope says some.
struct Report {
    Report() = default;
    explicit Report(const kyo::Json::Value& report);

    /// False for what is no object, or has collections that are nested too deep to be read.
    bool isReadable() const { return members.isObject(); }
    /// Compact text of the whole report, as it waits and as the log shows it.
    std::string text() const { return written(collections, true); }
    /// The text that is sent: the catalog id is not in it.
    std::string textToSend() const { return written(collections, false); }
    /// Of text().
    std::size_t length() const { return written("", true).size() + collections.size(); }

    kyo::Json::Value members;  ///< "signalCollections", where the report has it, only keeps its place here
    std::string collections;   ///< compact text of "signalCollections"

  private:
    std::string written(std::string_view collectionsText, bool withCatalogId) const;
};

}  // namespace vlmProd
