// The generic conversion of Resource, by reflection. In a file of its own because the reflection library's
// headers are not understood by every compiler's C++20.
#include <rttr/variant.h>
#include <rttr/variant_sequential_view.h>
#include <rttr/type>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/VlmLog.h"
#include "eb/com/optional.h"
#include "json/JsonFields.h"
#include "qdr/services/registration.h"
#include "services/Resource.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

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
        // An element without its key leaves the key of the element before, which then selects.
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
