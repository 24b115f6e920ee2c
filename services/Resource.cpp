#include "services/Resource.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "app/JsonFields.h"
#include "app/VlmLog.h"
#include "collect/IngressQueue.h"
#include "services/StableText.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

constexpr const char* kProcessData = "void vlmProd::Resource::processData(kyo::Json::Value)";

std::string collectorKey(std::string_view service, std::string_view resource, int index) {
    std::string key(service);
    return key.append("|").append(resource).append("|").append(std::to_string(index));
}

std::string_view textIn(const Value& record, std::string_view name) {
    const char* begin = nullptr;
    const char* end = nullptr;
    const Value* const found = record.find(name.data(), name.data() + name.size());
    return found != nullptr && found->getString(&begin, &end) ? std::string_view(begin, end - begin)
                                                              : std::string_view();
}

/// A record's compact text, written once, in which the members can be told apart: the trace shows every
/// member and the whole record, before and after it is completed.
class RecordText {
  public:
    explicit RecordText(const Value& record) {
        if (!record.isObject()) {
            kyo::Json::appendCompact(m_text, record);
            return;
        }
        m_text.reserve(40 * record.size());
        m_spans.reserve(record.size() + 2);  // the two that a collector brings
        m_text.push_back('{');
        for (auto item = record.begin(); item != record.end(); ++item) {
            m_spans.push_back(append(nameOf(item), *item));
            m_text.push_back(',');
        }
        m_text.back() = m_spans.empty() ? '{' : '}';
        if (m_spans.empty()) {
            m_text.push_back('}');
        }
    }

    /// Puts the member, which is new, where the writer would.
    void insert(std::string_view name, const Value& value) {
        const auto at =
            std::lower_bound(m_spans.begin(), m_spans.end(), name,
                             [](const Span& one, std::string_view key) { return one.name < key; });
        // What is inserted brings one comma: behind it, or before it at the end of the record.
        const bool isLast = at == m_spans.end();
        const std::size_t before = isLast ? m_text.size() - 1 : at->begin;
        const std::string rest = m_text.substr(before);
        m_text.resize(before);
        if (isLast && !m_spans.empty()) {
            m_text.push_back(',');
        }
        const Span added = append(name, value);
        if (!isLast) {
            m_text.push_back(',');
        }
        const std::size_t longer = m_text.size() - before;
        m_text.append(rest);
        for (auto later = at; later != m_spans.end(); ++later) {
            later->begin += longer;
            later->valueBegin += longer;
            later->end += longer;
        }
        m_spans.insert(at, added);
    }

    const std::string& whole() const { return m_text; }
    std::size_t size() const { return m_spans.size(); }
    std::string_view name(std::size_t i) const { return m_spans[i].name; }
    std::string_view value(std::size_t i) const {
        return std::string_view(m_text).substr(m_spans[i].valueBegin, m_spans[i].end - m_spans[i].valueBegin);
    }

  private:
    struct Span {
        std::string_view name;  ///< in the record
        std::size_t begin;
        std::size_t valueBegin;
        std::size_t end;
    };

    static std::string_view nameOf(const Value::const_iterator& item) {
        const char* end = nullptr;
        const char* const begin = item.memberName(&end);
        return {begin, static_cast<std::size_t>(end - begin)};
    }

    Span append(std::string_view name, const Value& value) {
        Span span{name, m_text.size(), 0, 0};
        // A view of a member's name ends with a zero byte, as do the literals that are inserted.
        kyo::Json::appendCompact(m_text, Value(StaticString(name.data())));
        m_text.push_back(':');
        span.valueBegin = m_text.size();
        kyo::Json::appendCompact(m_text, value);
        span.end = m_text.size();
        return span;
    }

    std::string m_text;
    std::vector<Span> m_spans;
};

}  // namespace

Resource::Resource(std::string name) : m_name(std::move(name)) {}

Resource::~Resource() = default;

void Resource::setSomeIPKey(std::string key) {
    const std::unique_lock lock(m_configuration);
    m_someIPKey = std::move(key);
}

void Resource::setSomeIPIndexAttribute(int index, std::vector<std::string> names) {
    const std::unique_lock lock(m_configuration);
    m_indexAttributes[index] = std::move(names);
}

void Resource::addAttribute(std::string name) {
    const std::unique_lock lock(m_configuration);
    m_attributes.push_back(std::move(name));
}

void Resource::addAttributes(std::vector<std::string> names) {
    std::size_t size = 0;
    {
        const std::unique_lock lock(m_configuration);
        m_attributes.insert(m_attributes.end(), std::make_move_iterator(names.begin()),
                            std::make_move_iterator(names.end()));
        size = m_attributes.size();
    }
    VLM_LOG(5, "Size of Attributes = " << size);
}

void Resource::setCollectorName(std::string service, std::string resource, int index, std::string collector) {
    VLM_LOG(5, "setCollectorName ::servName,resrName,index,collectName" << service << "," << resource << ","
                                                                        << index << "," << collector);
    const std::unique_lock lock(m_configuration);
    m_collectorNames[collectorKey(service, resource, index)] = collector;
    if (resource != m_name) {
        return;  // no record of this resource can match it
    }
    const auto at =
        std::lower_bound(m_routes.begin(), m_routes.end(), std::pair(index, std::string_view(service)),
                         [](const Route& route, const auto& key) {
                             return std::pair(route.index, std::string_view(route.service)) < key;
                         });
    if (at != m_routes.end() && at->index == index && at->service == service) {
        at->collector = stableText(collector);
    } else {
        m_routes.insert(at, Route{index, std::move(service), stableText(collector)});
    }
}

std::optional<StaticString> Resource::findCollector(int index, std::string_view service) const {
    const auto at = std::lower_bound(m_routes.begin(), m_routes.end(), std::pair(index, service),
                                     [](const Route& route, const auto& key) {
                                         return std::pair(route.index, std::string_view(route.service)) < key;
                                     });
    if (at == m_routes.end() || at->index != index || at->service != service) {
        return std::nullopt;
    }
    return at->collector;
}

void Resource::setSubscribed() {
    m_subscribed = 1;
}

bool Resource::isSubscribed() {
    const int subscribed = m_subscribed;
    VLM_LOG(5, "Resource = " << m_name << " subscription status = " << subscribed);
    return subscribed != 0;
}

void Resource::processData(Value record) {
    // Asked once, so that the trace is whole or absent.
    const bool told = kyo::Log::enabled(5);
    std::optional<RecordText> text;
    if (told) {
        text.emplace(record);
    }
    std::size_t indexes = 0;
    std::size_t attributes = 0;
    int index = 0;
    std::optional<StaticString> collector;
    {
        const std::shared_lock lock(m_configuration);
        indexes = m_indexAttributes.size();
        attributes = m_attributes.size();
        const Value* key = nullptr;
        if (record.isObject()) {
            key = record.find(m_someIPKey.data(), m_someIPKey.data() + m_someIPKey.size());
        }
        // A sample without its key is not one of index 0.
        if (key != nullptr && !key->isNull() && toInt(*key, index)) {
            collector = findCollector(index, textIn(record, "serviceName"));
        }
    }
    if (told) {
        VLM_LOG_AS(5, kProcessData, "jsonData: " << text->whole());
        VLM_LOG_AS(5, kProcessData, "Size of someip index map = " << indexes);
        VLM_LOG_AS(5, kProcessData, "Size of attributes = " << attributes);
        VLM_LOG_AS(5, kProcessData, "JSON VALUES MEMBER SIZE = " << record.size());
    }
    if (collector) {
        if (told) {
            VLM_LOG_AS(5, kProcessData,
                       "COLLECT NAME FOUND = " << collector->c_str() << "for key = "
                                               << collectorKey(textIn(record, "serviceName"), m_name, index));
        }
        record[StaticString("collectorName")] = Value(*collector);
        record[StaticString("index")] = Value(index);
    }
    if (told) {
        if (collector && record.size() == text->size() + 2) {
            text->insert("collectorName", Value(*collector));
            text->insert("index", Value(index));
        } else if (collector) {
            text.emplace(record);  // a record that brought one of them along
        }
        for (std::size_t i = 0; i < text->size(); ++i) {
            VLM_LOG_AS(5, kProcessData, "[" << text->name(i) << "]:" << text->value(i));
        }
        if (record.isObject()) {
            VLM_LOG_AS(5, kProcessData, "FAST WRITER = " << text->whole());
        }
    }
    IngressQueue::getInstance()->insertRecord(told ? TextedRecord(record, text->whole())
                                                   : TextedRecord(record));
}

}  // namespace vlmProd
