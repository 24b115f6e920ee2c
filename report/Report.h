#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "kyo/Json.h"

namespace vlmProd {

/// A report between report control and the backend. Its collections, nearly all of its size, stay text; the
/// other members are values, because the envelope repeats some of them.
struct Report {
    Report() = default;
    explicit Report(const kyo::Json::Value& report);

    /// Returns false when the value is no object, or its collections are nested too deep to be read.
    bool isReadable() const { return members.isObject(); }
    /// Returns the compact text of the whole report, as the log shows it.
    std::string text() const { return written(collections, true); }
    /// Returns the text that is sent, without the catalog id.
    std::string textToSend() const { return written(collections, false); }
    /// Of text().
    std::size_t length() const { return written("", true).size() + collections.size(); }

    kyo::Json::Value members;  ///< holds the place of "signalCollections", if the report has it
    std::string collections;   ///< compact text of "signalCollections"

  private:
    std::string written(std::string_view collectionsText, bool withCatalogId) const;
};

}  // namespace vlmProd
