#include "catalog/VlmJsonCatalog.h"

#include <cstdlib>
#include <exception>
#include <utility>

#include "base/FileText.h"
#include "base/VlmLog.h"
#include "json/FieldReader.h"
#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

/// Created by start-up before any other thread reads it; never destroyed, since detached threads may read it
/// until the process ends.
VlmJsonCatalog* catalogSingleton = nullptr;

constexpr int kMalformedFile = -6;  // exit status 250

// Each operation logs what it finds wrong, under its own signature.
#define LOG_FAULTS(reader)                             \
    for (const std::string& fault : reader.faults()) { \
        VLM_LOG(3, fault);                             \
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
    FieldReader reader("catalog", Reading::Converting);
    const Field services = reader.root(m_document)["services"];
    const std::vector<std::string> names = services.names();
    LOG_FAULTS(reader);
    if (!services.value().isObject()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        return;
    }
    m_numberOfServices = 0;
    for (const std::string& name : names) {
        AddSingleServiceInfoToMap(name, services.value());
        ++m_numberOfServices;
    }
}

void VlmJsonCatalog::AddSingleServiceInfoToMap(const std::string& name, const Value& services) {
    FieldReader reader("catalog", Reading::Converting);
    const Field service = reader.root(services, "services")[name];
    const std::vector<std::string> resourceNames = service.names();
    LOG_FAULTS(reader);
    if (!service.value().isObject()) {
        VLM_LOG(3, "Couldnot find the JSON value for the service " << name);
        return;
    }
    ServicesStruct info;
    for (const std::string& resourceName : resourceNames) {
        info.resources.emplace(resourceName, getResourceInfoForService(name, resourceName, service.value()));
    }
    m_services.emplace(name, std::move(info));
}

ResourceStruct VlmJsonCatalog::getResourceInfoForService(const std::string& serviceName,
                                                         const std::string& resourceName,
                                                         const Value& serviceObject) {
    ResourceStruct info;
    FieldReader reader("catalog", Reading::Converting);
    const Field resource = reader.root(serviceObject, "services." + serviceName)[resourceName];
    resource.object();
    resource["loadFactor"].number(info.loadFactor);
    resource["serviceId"].name(info.serviceId);
    resource["someipKeyProperty"].name(info.someipKeyProperty);
    LOG_FAULTS(reader);
    if (!resource.value().isObject()) {
        VLM_LOG(3, "Couldnot find the JSON value for the resource " << resourceName);
        return info;
    }
    PopulateInstancesOfResource(resource.place(), resource.value(), info.instances);
    return info;
}

void VlmJsonCatalog::PopulateInstancesOfResource(
    const std::string& place, const Value& resourceObject,
    std::map<std::int32_t, std::vector<PropertyInfoStruct>>& instances) {
    FieldReader reader("catalog", Reading::Converting);
    const Field all = reader.root(resourceObject, place)["instances"];
    for (const std::string& name : all.names()) {
        const Field instance = all[name];
        std::int32_t id = 0;
        try {
            id = std::stoi(name);
        } catch (const std::exception&) {
            VLM_LOG(3, instance.place() << ": an instance id is a decimal number of 32 bits");
            throw;
        }
        std::vector<PropertyInfoStruct> infos;
        for (const Field& property : instance.elements()) {
            if (!property.object()) {
                continue;
            }
            PropertyInfoStruct& info = infos.emplace_back();
            property["property"].name(info.propertyName);
            property["signal"].name(info.signalName);
            property["privacy_group"].number(info.privacyGroup);
        }
        if (instance.value().isArray()) {
            instances.emplace(id, std::move(infos));
        }
    }
    LOG_FAULTS(reader);
    if (!all.value().isObject()) {
        VLM_LOG(3, "Couldnot find the instances JSON value for the resource ");
    }
}

std::string VlmJsonCatalog::getCatalogVersion() {
    const std::lock_guard<std::mutex> lock(m_versionGuard);
    FieldReader reader("catalog", Reading::Converting);
    const Field meta = reader.root(m_document)["meta"];
    m_catalogVersion.clear();
    meta.object();
    meta["vlmVersion"].text(m_catalogVersion);
    LOG_FAULTS(reader);
    if (!meta.value().isObject()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
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
