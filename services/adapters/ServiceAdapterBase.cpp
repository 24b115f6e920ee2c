#include "services/adapters/ServiceAdapterBase.h"

#include <algorithm>
#include <cctype>
#include <thread>
#include <utility>

#include "base/VlmLog.h"
#include "kyo/DateTime.h"
#include "kyo/Status.h"

// One body serves all adapters; the line shows the operation of the adapter that it is.
#define ADAPTER_LOG(level, result, operation, ...) \
    VLM_LOG_AS(level, "virtual " result " vlmProd::" << m_className << "::" operation, __VA_ARGS__)

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

constexpr int kFindAttempts = 5;

/// "gnss" for the adapter "VLMGNSS".
std::string namespaceOf(std::string_view className) {
    std::string name(className.substr(className.starts_with("VLM") ? 3 : 0));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    return name;
}

}  // namespace

ServiceAdapterBase::ServiceAdapterBase(const char* className, std::string serviceName)
    : m_className(className), m_serviceName(std::move(serviceName)) {}

bool ServiceAdapterBase::initProxy() {
    const std::lock_guard<std::mutex> connecting(m_connecting);
    if (isConnected() || m_found) {
        ADAPTER_LOG(5, "bool", "initProxy()", "Service is allready found, No need to run find service again");
        return false;
    }
    for (int attempt = 0; attempt < kFindAttempts; ++attempt) {
        if (findAndConnect()) {
            m_found = true;
            static auto& found = kyo::Status::counter("services.found");
            found.add();
            return true;
        }
        std::this_thread::sleep_for(m_attemptPause);
    }
    return false;
}

void ServiceAdapterBase::createResourceObject(std::vector<std::string> resources) {
    for (auto& name : resources) {
        ADAPTER_LOG(5, "void", "createResourceObject(std::vector<string>)",
                    "Creating resource object for " << name);
        auto resource = std::make_shared<Resource>(name);
        const std::unique_lock lock(m_resourceMutex);
        m_resources[std::move(name)] = std::move(resource);
    }
}

std::shared_ptr<Resource> ServiceAdapterBase::findResource(const std::string& resource) const {
    const std::shared_lock lock(m_resourceMutex);
    const auto found = m_resources.find(resource);
    return found != m_resources.end() ? found->second : nullptr;
}

bool ServiceAdapterBase::SubscribeResource(std::string resource) {
    const std::lock_guard<std::mutex> subscribing(m_subscribing);
    const auto found = findResource(resource);
    if (!found) {
        ADAPTER_LOG(3, "bool", "SubscribeResource(string)",
                    "Didn't find the resource object for " << resource);
        return false;
    }
    if (found->isSubscribed()) {
        ADAPTER_LOG(4, "bool", "SubscribeResource(string)",
                    "Allready subscribed for resource object " << resource);
        return true;
    }
    if (!isConnected()) {
        ADAPTER_LOG(3, "bool", "SubscribeResource(string)",
                    "proxy is null, hence can not go ahead with subscription");
        return false;
    }
    switch (subscribeEvent(resource)) {
        case Subscription::NoSuchEvent:
            ADAPTER_LOG(3, "bool", "SubscribeResource(string)",
                        "The service " << m_serviceName << " has no event '" << resource << "'");
            return false;
        case Subscription::Refused:
            ADAPTER_LOG(3, "bool", "SubscribeResource(string)",
                        "The middleware refused the subscription of " << resource);
            return false;
        case Subscription::Done:
            break;
    }
    found->setSubscribed();
    static auto& subscribed = kyo::Status::counter("events.subscribed");
    subscribed.add();
    return true;
}

bool ServiceAdapterBase::isSubscribed(std::string resource) {
    if (const auto found = findResource(resource)) {
        return found->isSubscribed();
    }
    ADAPTER_LOG(3, "bool", "isSubscribed(string)", "Resource " << resource << " does not exist");
    return false;
}

void ServiceAdapterBase::setSomeIPKey(std::string resource, std::string key) {
    if (const auto found = findResource(resource)) {
        found->setSomeIPKey(std::move(key));
        return;
    }
    ADAPTER_LOG(3, "void", "setSomeIPKey(string, string)", "Resource " << resource << " does not exist");
}

void ServiceAdapterBase::setSomeIPIndexAttribute(std::string resource, int index,
                                                 std::vector<std::string>& names) {
    if (const auto found = findResource(resource)) {
        found->setSomeIPIndexAttribute(index, names);
        return;
    }
    ADAPTER_LOG(3, "void", "setSomeIPIndexAttribute(string, int, std::vector<string>&)",
                "Resource " << resource << " does not exist");
}

void ServiceAdapterBase::setCollectorName(std::string service, std::string resource, int index,
                                          std::string collector) {
    if (const auto found = findResource(resource)) {
        found->setCollectorName(std::move(service), std::move(resource), index, std::move(collector));
        return;
    }
    ADAPTER_LOG(3, "void", "setCollectorName(string, string, int, string)",
                "Resource " << resource << " does not exist");
}

void ServiceAdapterBase::addProperties(std::string resource, std::vector<std::string>& names) {
    if (const auto found = findResource(resource)) {
        found->addAttributes(names);
        return;
    }
    ADAPTER_LOG(3, "void", "addProperties(string, std::vector<string>&)",
                "Resource " << resource << " does not exist");
}

std::shared_ptr<Resource> ServiceAdapterBase::resourceOfSample(const char* event) {
    std::shared_ptr<Resource> resource;
    bool missing = false;
    {
        const std::shared_lock lock(m_resourceMutex);
        const auto found = m_resources.find(std::string_view(event));
        missing = found == m_resources.end();
        if (!missing) {
            resource = found->second;
        }
    }
    if (missing) {
        const std::unique_lock lock(m_resourceMutex);
        resource = m_resources[event];
    }
    if (!resource) {
        VLM_LOG_AS(3,
                   "void vlmProd::" << m_className << "::callback_" << event << "(std::vector<qdr::services::"
                                    << namespaceOf(m_className) << "::datatypes::DT_" << event << "_struct>)",
                   "Resource ptr is null for resource " << event);
    }
    return resource;
}

Value ServiceAdapterBase::newRecord(const char* event) const {
    Value record(kyo::Json::objectValue);
    record[StaticString("timestamp")] =
        Value(static_cast<kyo::Json::UInt64>(kyo::DateTime::getCurrentTimeMs()));
    record[StaticString("serviceName")] = Value(StaticString(m_serviceName.c_str()));
    record[StaticString("resName")] = Value(StaticString(event));
    return record;
}

void ServiceAdapterBase::countReceived(std::size_t samples) {
    static auto& received = kyo::Status::counter("samples.received");
    received.add(samples);
}

void ServiceAdapterBase::forward(Resource& resource, Value&& record) {
    resource.processData(std::move(record));
}

}  // namespace vlmProd
