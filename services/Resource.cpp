#include "services/Resource.h"

#include <rttr/variant_sequential_view.h>
#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <rttr/type>
#include <utility>

#include "app/JsonFields.h"
#include "app/VlmLog.h"
#include "collect/IngressQueue.h"
#include "eb/com/optional.h"
#include "qdr/services/registration.h"
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

/// The texts of a record's members, each written once: the trace shows every member and the whole record,
/// before and after it is completed.
class MemberTexts {
  public:
    explicit MemberTexts(const Value& record) {
        for (auto item = record.begin(); record.isObject() && item != record.end(); ++item) {
            m_members.emplace_back(item.name(), compactText(*item));
        }
    }

    /// Keeps the order in which the writer puts members.
    void set(const std::string& name, std::string text) {
        const auto at =
            std::lower_bound(m_members.begin(), m_members.end(), name,
                             [](const auto& item, const std::string& key) { return item.first < key; });
        if (at != m_members.end() && at->first == name) {
            at->second = std::move(text);
        } else {
            m_members.emplace(at, name, std::move(text));
        }
    }

    std::string whole() const {
        std::string text = "{";
        for (const auto& [name, value] : m_members) {
            text.append(text.size() > 1 ? "," : "")
                .append(compactText(Value(name)))
                .append(":")
                .append(value);
        }
        return text.append("}");
    }

    const std::vector<std::pair<std::string, std::string>>& members() const { return m_members; }

  private:
    std::vector<std::pair<std::string, std::string>> m_members;
};

/// Writes the optional's value, if it holds one. False when the variant holds something else.
template <typename T>
bool putOptional(Value& work, const std::string& name, const rttr::variant& value, const char* type) {
    if (!value.is_type<eb::com::optional<T>>()) {
        return false;
    }
    VLM_LOG_AS(5, "void vlmProd::Resource::addToJsonValue(string, rttr::variant&)",
               "Got the value type as eb::com::optional<" << type << ">");
    if (const auto& held = value.get_value<eb::com::optional<T>>()) {
        work[name] = Value(*held);
    }
    return true;
}

bool isOptionalEnumeration(const rttr::type& type) {
    const auto arguments = type.get_template_arguments();
    return arguments.size() == 1 && arguments.begin()->is_enumeration();
}

}  // namespace

Resource::Resource(std::string name) : m_name(std::move(name)), m_work(kyo::Json::objectValue) {}

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
    std::optional<MemberTexts> texts;
    if (told) {
        texts.emplace(record);
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
        VLM_LOG_AS(5, kProcessData, "jsonData: " << texts->whole());
        VLM_LOG_AS(5, kProcessData, "Size of someip index map = " << indexes);
        VLM_LOG_AS(5, kProcessData, "Size of attributes = " << attributes);
        VLM_LOG_AS(5, kProcessData, "JSON VALUES MEMBER SIZE = " << record.size());
    }
    if (collector) {
        if (told) {
            VLM_LOG_AS(5, kProcessData,
                       "COLLECT NAME FOUND = " << collector->c_str() << "for key = "
                                               << collectorKey(textIn(record, "serviceName"), m_name, index));
            texts->set("collectorName", compactText(Value(*collector)));
            texts->set("index", std::to_string(index));
        }
        record[StaticString("collectorName")] = Value(*collector);
        record[StaticString("index")] = Value(index);
    }
    std::shared_ptr<const std::string> text;
    if (told) {
        for (const auto& [name, value] : texts->members()) {
            VLM_LOG_AS(5, kProcessData, "[" << name << "]:" << value);
        }
        if (record.isObject()) {
            text = std::make_shared<const std::string>(texts->whole());
            VLM_LOG_AS(5, kProcessData, "FAST WRITER = " << *text);
        }
    }
    IngressQueue::getInstance()->insertRecord(TextedRecord(std::move(record), std::move(text)));
}

void Resource::processData(std::string /*name*/, rttr::variant samples) {
    qdr::services::registerAllTypes();
    std::string key;
    std::map<int, std::vector<std::string>> indexAttributes;
    {
        const std::shared_lock lock(m_configuration);
        key = m_someIPKey;
        indexAttributes = m_indexAttributes;
    }
    const std::lock_guard<kyo::Mutex> lock(m_workMutex);
    m_work = Value(kyo::Json::objectValue);
    if (!samples.is_valid()) {
        return;
    }
    VLM_LOG(5, "Variant structure is good");
    if (!samples.is_sequential_container()) {
        return;
    }
    VLM_LOG(5, "DATA TYPE Data is sequential container");
    for (const auto& item : samples.create_sequential_view()) {
        const rttr::variant element = item.extract_wrapped_value();
        if (!element.is_valid()) {
            continue;
        }
        const rttr::type type = element.get_type();
        VLM_LOG(5, "Populating values for key = " << key);
        rttr::variant keyValue = type.get_property_value(key, element);
        VLM_LOG(5, "Getting SOMEIP property type = " << keyValue.get_type().get_name().to_string());
        // The key of the element before must not stand for one that is absent here.
        m_work.removeMember(key);
        addTo(m_work, key, keyValue);
        const Value& written = member(m_work, key);
        int index = 0;
        if (written.isNull() || !toInt(written, index)) {
            continue;
        }
        const auto listed = indexAttributes.find(index);
        if (listed == indexAttributes.end()) {
            continue;
        }
        VLM_LOG(5, "SOMEKEY VAL is matching");
        for (const auto& attribute : listed->second) {
            rttr::variant value = type.get_property_value(attribute, element);
            addTo(m_work, attribute, value);
        }
    }
}

void Resource::addToJsonValue(std::string name, rttr::variant& value) {
    const std::lock_guard<kyo::Mutex> lock(m_workMutex);
    addTo(m_work, name, value);
}

void Resource::insertEnumValuesinJson(std::string name, rttr::variant& value) {
    const std::lock_guard<kyo::Mutex> lock(m_workMutex);
    insertEnum(m_work, name, value);
}

void Resource::addTo(Value& work, const std::string& name, rttr::variant& value) {
    if (putOptional<float>(work, name, value, "float") || putOptional<double>(work, name, value, "double") ||
        putOptional<int>(work, name, value, "int") || putOptional<bool>(work, name, value, "bool") ||
        putOptional<std::string>(work, name, value, "string")) {
        return;
    }
    if (value.is_valid() && (value.get_type().is_enumeration() || isOptionalEnumeration(value.get_type()))) {
        insertEnum(work, name, value);
        return;
    }
    VLM_LOG_AS(5, "void vlmProd::Resource::addToJsonValue(string, rttr::variant&)",
               name << " is not found any value");
}

void Resource::insertEnum(Value& work, const std::string& name, rttr::variant& value) {
    bool converted = false;
    const std::int64_t number = value.convert<std::int64_t>(&converted);
    if (!converted) {
        return;  // an optional without a value
    }
    work[name] = number < 0 ? Value(static_cast<kyo::Json::Int64>(number))
                            : Value(static_cast<kyo::Json::UInt64>(number));
    VLM_LOG_AS(5, "void vlmProd::Resource::insertEnumValuesinJson(string, rttr::variant&)",
               "ENUM INSERTION SUCCESSFULL");
}

void Resource::printJsonValues() {
    const std::lock_guard<kyo::Mutex> lock(m_workMutex);
    VLM_LOG(5, "JSON VALUES MEMBER SIZE = " << m_work.size());
    VLM_LOG(5, "FAST WRITER = " << m_work);
}

Value Resource::workValue() const {
    const std::lock_guard<kyo::Mutex> lock(m_workMutex);
    return m_work;
}

}  // namespace vlmProd
