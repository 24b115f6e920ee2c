#include "services/Resource.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "base/CompactObject.h"
#include "base/JsonFields.h"
#include "base/StableText.h"
#include "base/VlmLog.h"
#include "collect/IngressQueue.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

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

/// Puts the member into the compact text of an object, where the writer would. False when it is there
/// already.
bool insertMember(std::string& object, std::string_view name, const Value& value) {
    std::size_t at = object.size() - 1;  // before the closing brace
    bool first = true;
    bool last = true;
    for (CompactObject members(object); last && members.next(); first = false) {
        if (members.name() == name) {
            return false;
        }
        if (members.name() > name) {
            at = static_cast<std::size_t>(members.whole().data() - object.data());
            last = false;
        }
    }
    std::string member(last && !first ? "," : "");
    member.append(1, '"').append(name).append("\":");
    kyo::Json::appendCompact(member, value);
    object.insert(at, member.append(last ? "" : ","));
    return true;
}

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
    std::string text;  // written once; the trace shows it before and after it is completed, and by members
    if (told) {
        text.reserve(std::size_t{40} * record.size());
        kyo::Json::appendCompact(text, record);
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
        VLM_LOG(5, "jsonData: " << text);
        VLM_LOG(5, "Size of someip index map = " << indexes);
        VLM_LOG(5, "Size of attributes = " << attributes);
        VLM_LOG(5, "JSON VALUES MEMBER SIZE = " << record.size());
    }
    if (collector) {
        if (told) {
            VLM_LOG(5, "COLLECT NAME FOUND = " << collector->c_str() << "for key = "
                                               << collectorKey(textIn(record, "serviceName"), m_name, index));
        }
        record[StaticString("collectorName")] = Value(*collector);
        record[StaticString("index")] = Value(index);
    }
    if (told) {
        if (collector && !(insertMember(text, "collectorName", Value(*collector)) &&
                           insertMember(text, "index", Value(index)))) {
            text = compactText(record);  // it has brought one of them along
        }
        for (CompactObject members(text); members.next();) {
            VLM_LOG(5, "[" << members.name() << "]:" << members.value());
        }
        if (record.isObject()) {
            VLM_LOG(5, "FAST WRITER = " << text);
        }
    }
    IngressQueue::getInstance()->insertRecord(told ? TextedRecord(record, std::move(text))
                                                   : TextedRecord(record));
}

}  // namespace vlmProd
