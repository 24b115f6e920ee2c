#include "services/ServiceMapObjectHandler.h"

#include "base/VlmLog.h"
#include "services/adapters/RegisteredAdapters.h"

namespace vlmProd {

ServiceMapObjectHandler* ServiceMapObjectHandler::GetInstance() {
    static auto* const ServiceMapObjectHandlerSingleton = new ServiceMapObjectHandler;
    return ServiceMapObjectHandlerSingleton;
}

ServiceMapObjectHandler::ServiceMapObjectHandler() : ServiceMapObjectHandler(makeRegisteredAdapters()) {}

ServiceMapObjectHandler::ServiceMapObjectHandler(Adapters adapters) {
    VLM_TRACE(7);
    createServiceObject(std::move(adapters));
}

ServiceMapObjectHandler::~ServiceMapObjectHandler() {
    VLM_TRACE(7);
}

void ServiceMapObjectHandler::createServiceObject(Adapters adapters) {
    for (auto& [name, adapter] : adapters) {
        m_services.emplace(std::move(name), std::move(adapter));
    }
}

BaseServiceObject* ServiceMapObjectHandler::find(const std::string& service) const {
    const auto found = m_services.find(service);
    return found != m_services.end() ? found->second.get() : nullptr;
}

bool ServiceMapObjectHandler::findService(std::string service) {
    if (auto* const adapter = find(service)) {
        return adapter->initProxy();
    }
    VLM_LOG(3, "Didn't find service " << service << "in the map");
    return false;
}

std::shared_ptr<BaseServiceObject> ServiceMapObjectHandler::getServiceObject(std::string service) {
    if (const auto found = m_services.find(service); found != m_services.end()) {
        return found->second;
    }
    VLM_LOG(3, "Didn't find service " << service << "in the map");
    return nullptr;
}

void ServiceMapObjectHandler::createResourceObject(std::string service, std::vector<std::string> resources) {
    VLM_TRACE(7);
    if (auto* const adapter = find(service)) {
        adapter->createResourceObject(std::move(resources));
        return;
    }
    VLM_LOG(3, "Error in creating resource, service " << service << " not found in the list");
}

void ServiceMapObjectHandler::addAttributesToResource(std::string service, std::string resource,
                                                      std::vector<std::string> names) {
    if (auto* const adapter = find(service)) {
        adapter->addProperties(std::move(resource), std::move(names));
        return;
    }
    VLM_LOG(3, "Error in creating resource, service " << service << " not found in the list");
}

void ServiceMapObjectHandler::setSomeIPKey(std::string service, std::string resource, std::string key) {
    if (auto* const adapter = find(service)) {
        adapter->setSomeIPKey(std::move(resource), std::move(key));
        return;
    }
    VLM_LOG(3, "Error in getting service object for service " << service << ". not found in the map");
}

void ServiceMapObjectHandler::setSomeIPIndexAttribute(std::string service, std::string resource, int index,
                                                      std::vector<std::string>& names) {
    if (auto* const adapter = find(service)) {
        adapter->setSomeIPIndexAttribute(std::move(resource), index, names);
        return;
    }
    VLM_LOG(3, "Error in getting service object for service " << service << ". not found in the map");
}

void ServiceMapObjectHandler::setCollectorName(std::string service, std::string resource, int index,
                                               std::string collector) {
    if (auto* const adapter = find(service)) {
        adapter->setCollectorName(std::move(service), std::move(resource), index, std::move(collector));
        return;
    }
    VLM_LOG(3, "Didn't find service " << service << "in the map");
}

bool ServiceMapObjectHandler::SubscribeResource(std::string service, std::string resource) {
    if (auto* const adapter = find(service)) {
        return adapter->SubscribeResource(std::move(resource));
    }
    VLM_LOG(3, "Error in getting service object for service " << service << ". not found in the map");
    return false;
}

bool ServiceMapObjectHandler::isResourceSubscribed(std::string service, std::string resource) {
    if (auto* const adapter = find(service)) {
        return adapter->isSubscribed(std::move(resource));
    }
    VLM_LOG(3, "Error in getting service object for service " << service << ". not found in the map");
    return false;
}

void ServiceMapObjectHandler::RunOnThread() {
    VLM_LOG(5, "Starting to run on thread");
}

}  // namespace vlmProd
