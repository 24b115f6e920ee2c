#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "kyo/Json.h"
#include "report/SignalCollection.h"

namespace vlmProd {

/// A report on its way to the backend. The collections in it are many times as large as all the rest, so they
/// are written once and stay text from then on; what an envelope tells of a report is kept beside it.
class ShippedReport {
  public:
    ShippedReport() = default;
    /// Writes the report.
    explicit ShippedReport(const kyo::Json::Value& report);
    /// Writes the report with `collections`, if there are any, for what its member "signalCollections" holds.
    ShippedReport(const kyo::Json::Value& report, const std::vector<const SignalCollection*>& collections);

    /// True for the text of an object, which a report is, without a part that is nested too deep to be read.
    bool isReadable() const { return m_readable; }
    /// Compact text; the member "catalogId" is in it until withoutCatalogId() has taken it out.
    const std::string& text() const { return m_text; }
    const std::string& withoutCatalogId();
    /// A member other than the collections, or null.
    const kyo::Json::Value& member(const std::string& name) const;

  private:
    std::string m_text;
    kyo::Json::Value m_head;  ///< all members but the collections
    bool m_readable = false;
    std::size_t m_catalogIdBegin = 0;
    std::size_t m_catalogIdEnd = 0;  ///< with the comma beside it
};

}  // namespace vlmProd
