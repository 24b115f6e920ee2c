#include "report/ShippedReport.h"

#include <string_view>

#include "base/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr std::string_view kCollections = "signalCollections";
constexpr std::string_view kCatalogId = "catalogId";

}  // namespace

ShippedReport::ShippedReport(const Value& report) : ShippedReport(report, {}) {}

ShippedReport::ShippedReport(const Value& report, const std::vector<const SignalCollection*>& collections)
    : m_readable(report.isObject()) {
    if (!m_readable) {
        kyo::Json::appendCompact(m_text, report);
        return;
    }
    std::size_t length = 1024;  // for the other members
    for (const auto* collection : collections) {
        length += collection->text.size() + 1;
    }
    m_text.reserve(length);
    m_text.push_back('{');
    for (auto item = report.begin(); item != report.end(); ++item) {
        const std::string name = item.name();
        const std::size_t begin = m_text.size();
        kyo::Json::appendCompact(m_text, Value(name));
        m_text.push_back(':');
        if (name == kCollections && !collections.empty()) {
            appendArray(m_text, collections);
        } else {
            m_readable = kyo::Json::appendCompact(m_text, *item) && m_readable;
        }
        m_text.push_back(',');
        if (name == kCatalogId) {
            m_catalogIdBegin = begin;
            m_catalogIdEnd = m_text.size();
        }
        if (name != kCollections) {
            m_head[name] = *item;
        }
    }
    if (m_text.size() > 1) {
        m_text.pop_back();
    }
    m_text.push_back('}');
    if (m_catalogIdEnd == m_text.size()) {  // the last member: what goes with it is the comma before
        --m_catalogIdEnd;
        m_catalogIdBegin -= m_catalogIdBegin > 1 ? 1 : 0;
    }
}

const std::string& ShippedReport::withoutCatalogId() {
    m_text.erase(m_catalogIdBegin, m_catalogIdEnd - m_catalogIdBegin);
    m_catalogIdEnd = m_catalogIdBegin;
    return m_text;
}

const Value& ShippedReport::member(const std::string& name) const {
    return vlmProd::member(m_head, name);
}

}  // namespace vlmProd
