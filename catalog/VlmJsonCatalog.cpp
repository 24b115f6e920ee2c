#include "catalog/VlmJsonCatalog.h"

#include <cstdlib>
#include <exception>
#include <utility>

#include "base/FileText.h"
#include "base/JsonFields.h"
#include "base/VlmLog.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

/// Created by start-up before any other thread reads it; never destroyed, since detached threads may read it
/// until the process ends.
VlmJsonCatalog* catalogSingleton = nullptr;

constexpr int kMalformedFile = -6;  // exit status 250

void nameMismatch(const std::string& place, const char* expected, const Value& value) {
    VLM_LOG(3, place << ": " << expected << " is expected, found " << kindOf(value));
}

std::string textField(const Value& object, const char* key, const std::string& place) {
    std::string text;
    if (!toText(member(object, key), text)) {
        nameMismatch(place + "." + key, "a text", member(object, key));
    }
    return text;
}

std::int32_t numberField(const Value& object, const char* key, const std::string& place) {
    int number = 0;
    if (!toInt(member(object, key), number)) {
        nameMismatch(place + "." + key, "a 32-bit number", member(object, key));
    }
    return number;
}

/// Returns the member if it is an object, else null; logs if it is something else.
const Value& objectMember(const Value& object, const std::string& key, const std::string& place) {
    const Value& value = member(object, key);
    if (!value.isObject() && !value.isNull()) {
        nameMismatch(place, "an object", value);
        return Value::nullSingleton();
    }
    return value;
}

}  // namespace

VlmJsonCatalog* VlmJsonCatalog::createSingleton(const std::string& path, FilesReturnCode& code) {
    code = FilesReturnCode::Ok;
    if (path.empty()) {
        VLM_LOG(3, "Catalog file path not provided!");
        code = FilesReturnCode::PathNotProvided;
        std::exit(1);
    }
    if (std::string content; !readWholeFile(path, content)) {
        VLM_LOG(3, "Catalog file path not valid.");
        VLM_LOG(3, path << " cannot be read. Install the signal catalog there.");
        code = FilesReturnCode::PathNotValid;
        std::exit(1);
    }
    if (catalogSingleton != nullptr) {
        throw std::string("VlmJsonCatalog::create() ERROR: Catalog already created!");
    }
    catalogSingleton = new VlmJsonCatalog(path);
    return catalogSingleton;
}

VlmJsonCatalog* VlmJsonCatalog::getInstance() {
    if (catalogSingleton == nullptr) {
        throw std::string("VlmJsonCatalog::getInstance() ERROR: JsonCatalog not created yet!");
    }
    return catalogSingleton;
}

VlmJsonCatalog::VlmJsonCatalog(const std::string& path) {
    if (path.empty()) {
        throw std::string("Catalog file path not provided!");
    }
    std::string content;
    if (!readWholeFile(path, content)) {
        throw std::string("Catalog file path not valid");
    }
    kyo::Json::Reader reader;
    if (!reader.parse(content, m_document, false)) {
        VLM_LOG(3, path << ": " << reader.getFormattedErrorMessages());
        VLM_LOG(3, "catalog file parsing not successful, check format");
        std::exit(kMalformedFile);
    }
    m_catalogFilePath = path;
    PopulateServiceInfo();
}

void VlmJsonCatalog::PopulateServiceInfo() {
    const Value& services = objectMember(m_document, "services", "services");
    if (services.isNull()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        return;
    }
    m_numberOfServices = 0;
    for (const std::string& name : services.getMemberNames()) {
        AddSingleServiceInfoToMap(name, services);
        ++m_numberOfServices;
    }
}

void VlmJsonCatalog::AddSingleServiceInfoToMap(const std::string& name, const Value& services) {
    const Value& service = objectMember(services, name, "services." + name);
    if (service.isNull()) {
        VLM_LOG(3, "Couldnot find the JSON value for the service " << name);
        return;
    }
    ServicesStruct info;
    for (const std::string& resourceName : service.getMemberNames()) {
        info.resources.emplace(resourceName, getResourceInfoForService(name, resourceName, service));
    }
    m_services.emplace(name, std::move(info));
}

ResourceStruct VlmJsonCatalog::getResourceInfoForService(const std::string& serviceName,
                                                         const std::string& resourceName,
                                                         const Value& serviceObject) {
    ResourceStruct info;
    const std::string place = "services." + serviceName + "." + resourceName;
    const Value& resource = objectMember(serviceObject, resourceName, place);
    if (resource.isNull()) {
        VLM_LOG(3, "Couldnot find the JSON value for the resource " << resourceName);
        return info;
    }
    info.loadFactor = numberField(resource, "loadFactor", place);
    info.serviceId = textField(resource, "serviceId", place);
    info.someipKeyProperty = textField(resource, "someipKeyProperty", place);
    PopulateInstancesOfResource(place + ".instances", resource, info.instances);
    return info;
}

void VlmJsonCatalog::PopulateInstancesOfResource(
    const std::string& place, const Value& resourceObject,
    std::map<std::int32_t, std::vector<PropertyInfoStruct>>& instances) {
    const Value& all = objectMember(resourceObject, "instances", place);
    if (all.isNull()) {
        VLM_LOG(3, "Couldnot find the instances JSON value for the resource ");
        return;
    }
    for (const std::string& name : all.getMemberNames()) {
        const std::string instancePlace = place + "." + name;
        std::int32_t id = 0;
        try {
            id = std::stoi(name);
        } catch (const std::exception&) {
            VLM_LOG(3, instancePlace << ": an instance id is a decimal number of 32 bits");
            throw;
        }
        const Value& properties = member(all, name);
        if (!properties.isArray()) {
            nameMismatch(instancePlace, "an array", properties);
            continue;
        }
        std::vector<PropertyInfoStruct> infos;
        for (kyo::Json::ArrayIndex i = 0; i < properties.size(); ++i) {
            const std::string propertyPlace = instancePlace + "[" + std::to_string(i) + "]";
            const Value& property = properties[i];
            if (!property.isObject()) {
                nameMismatch(propertyPlace, "an object", property);
                continue;
            }
            infos.push_back({textField(property, "property", propertyPlace),
                             textField(property, "signal", propertyPlace),
                             numberField(property, "privacy_group", propertyPlace)});
        }
        instances.emplace(id, std::move(infos));
    }
}

std::string VlmJsonCatalog::getCatalogVersion() {
    const std::lock_guard<std::mutex> lock(m_versionGuard);
    const Value& meta = objectMember(m_document, "meta", "meta");
    if (meta.isNull()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        m_catalogVersion.clear();
    } else {
        m_catalogVersion = textField(meta, "vlmVersion", "meta");
    }
    return m_catalogVersion;
}

std::vector<std::string> VlmJsonCatalog::getServicesNames(FilesReturnCode& code) {
    const Value& services = member(m_document, "services");
    if (!services.isObject()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        code = FilesReturnCode::ServiceDataMissing;
        return {};
    }
    code = FilesReturnCode::Ok;
    return services.getMemberNames();
}

std::string VlmJsonCatalog::getSomeIPKey(std::string service, std::string resource, FilesReturnCode& code) {
    code = FilesReturnCode::ServiceDataMissing;
    const Value& services = member(m_document, "services");
    if (services.isNull()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        return "";
    }
    const Value& serviceObject = member(services, service);
    if (serviceObject.isNull()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file for the service " << service);
        return "";
    }
    const Value& resourceObject = member(serviceObject, resource);
    if (resourceObject.isNull()) {
        VLM_LOG(3, "Failed to get the resource info from Json Catalog file for the service "
                       << service << " and resource " << resource);
        return "";
    }
    code = FilesReturnCode::Ok;
    return textOf(member(resourceObject, "someipKeyProperty"));
}

std::vector<std::string> VlmJsonCatalog::getAllProperties(std::string service, std::string resource,
                                                          std::int32_t instanceId) {
    std::vector<std::string> names;
    const auto serviceEntry = m_services.find(service);
    if (serviceEntry == m_services.end()) {
        VLM_LOG(3, "Service " << service << "  not found in json catalog");
        return names;
    }
    const auto resourceEntry = serviceEntry->second.resources.find(resource);
    if (resourceEntry == serviceEntry->second.resources.end()) {
        VLM_LOG(3, "Service " << service << " and resource " << resource << " not found in json catalog");
        return names;
    }
    const auto instanceEntry = resourceEntry->second.instances.find(instanceId);
    if (instanceEntry == resourceEntry->second.instances.end()) {
        return names;
    }
    for (const PropertyInfoStruct& property : instanceEntry->second) {
        VLM_LOG(5,
                "Populating for the INSTANCE " << instanceId << " and property = " << property.propertyName);
        names.push_back(property.propertyName);
    }
    return names;
}

std::map<std::string, std::vector<int>> VlmJsonCatalog::getAllInstancesOfAService(std::string service,
                                                                                  FilesReturnCode& code) {
    std::map<std::string, std::vector<int>> out;
    const auto entry = m_services.find(service);
    if (entry == m_services.end()) {
        VLM_LOG(3, "Service name not found");
        code = FilesReturnCode::ServiceNotFound;
        return out;
    }
    code = FilesReturnCode::Ok;
    for (const auto& [resourceName, resource] : entry->second.resources) {
        std::vector<int>& ids = out[resourceName];
        for (const auto& instance : resource.instances) {
            ids.push_back(instance.first);
        }
    }
    return out;
}

}  // namespace vlmProd
