#include "services/Resource.h"

#include <chrono>
#include <iterator>
#include <mutex>
#include <string_view>
#include <utility>

#include "base/CompactJson.h"
#include "base/VlmLog.h"
#include "collect/IngressQueue.h"
#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

std::string_view textIn(const Value& record, std::string_view name) {
    const char* begin = nullptr;
    const char* end = nullptr;
    const Value* const found = record.find(name.data(), name.data() + name.size());
    return found != nullptr && found->getString(&begin, &end) ? std::string_view(begin, end - begin)
                                                              : std::string_view();
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
    m_collectorNames[{index, std::move(service), std::move(resource)}] = std::move(collector);
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
    const auto begin = std::chrono::steady_clock::now();
    // Asked once, so that the trace is whole or absent.
    const bool traced = kyo::Log::enabled(5);
    const std::string incomplete = traced ? compactText(record) : "";
    const std::size_t members = record.size();
    std::size_t indexes = 0;
    std::size_t attributes = 0;
    int index = 0;
    bool found = false;
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
            const auto collector = m_collectorNames.find(
                std::tuple(index, textIn(record, "serviceName"), std::string_view(m_name)));
            found = collector != m_collectorNames.end();
            if (found) {
                record[StaticString("collectorName")] = collector->second;
                record[StaticString("index")] = index;
            }
        }
    }
    Record complete(record);
    complete.begin = begin;
    if (traced) {
        VLM_LOG(5, "jsonData: " << incomplete);
        VLM_LOG(5, "Size of someip index map = " << indexes);
        VLM_LOG(5, "Size of attributes = " << attributes);
        VLM_LOG(5, "JSON VALUES MEMBER SIZE = " << members);
        if (found) {
            VLM_LOG(5, "COLLECT NAME FOUND = " << complete.collectorName
                                               << "for key = " << textIn(record, "serviceName") << '|'
                                               << m_name << '|' << index);
        }
        for (ObjectReader object(complete.text); object.next();) {
            VLM_LOG(5, "[" << object.name() << "]:" << object.value());
        }
        if (record.isObject()) {
            VLM_LOG(5, "FAST WRITER = " << complete.text);
        }
    }
    IngressQueue::getInstance()->insertRecord(std::move(complete));
}

}  // namespace vlmProd
