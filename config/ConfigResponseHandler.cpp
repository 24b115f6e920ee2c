#include "config/ConfigResponseHandler.h"

#include <botan/base64.h>
#include <botan/hash.h>
#include <botan/hex.h>

#include <chrono>
#include <system_error>
#include <thread>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "bus/PubSubService.h"
#include "catalog/VlmJsonCatalog.h"
#include "collect/IngressQueue.h"
#include "kyo/Status.h"
#include "report/VlmReportControl.h"
#include "services/ProxyNames.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr const char* kSendRecords =
    "void vlmProd::ConfigResponseHandler::sendRecordsToCollectorObject(kyo::Json::Value)";
constexpr std::chrono::seconds kPauseBetweenServices{4};
constexpr std::chrono::seconds kPauseBetweenPasses{10};

}  // namespace

ConfigResponseHandler* ConfigResponseHandler::getInstance() {
    static ConfigResponseHandler* const instance = [] {
        auto* const created = new ConfigResponseHandler;
        kyo::Status::gauge("services.configured", [created] {
            return Value(static_cast<kyo::Json::UInt64>(created->configuredResources().size()));
        });
        return created;
    }();
    return instance;
}

ConfigResponseHandler::ConfigResponseHandler(ServiceMapObjectHandler& services, ServiceDiscovery& discovery)
    : m_services(&services), m_serviceDiscovery(&discovery) {}

ServiceMapObjectHandler& ConfigResponseHandler::services() {
    return m_services != nullptr ? *m_services : *ServiceMapObjectHandler::GetInstance();
}

bool ConfigResponseHandler::doBaseSetupFromLocalConfig(std::string path) {
    VLM_TRACE(7);
    return setUp([this, &path] { return createConfigParserFromFile(path); });
}

bool ConfigResponseHandler::doBaseSetupFromOrxConfigResponse(Value config, std::string recordId,
                                                             std::string recordBody) {
    VLM_LOG(7, "recordId = " << recordId << ", length of its body = " << recordBody.size());
    return setUp([this, &config] { return createConfigParserFromJson(config); });
}

std::string ConfigResponseHandler::takeFromBackend(Value config, const std::string& recordId,
                                                   const std::string& recordBody) {
    const bool isGood = doBaseSetupFromOrxConfigResponse(std::move(config), recordId, recordBody);
    if (isGood) {
        const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
        hash->update(Botan::base64_decode(recordBody, true));
        Value accepted(kyo::Json::objectValue);
        accepted["name"] = m_configParser->getConfigName();
        accepted["version"] = m_configParser->getConfigVersion();
        accepted["recordId"] = recordId;
        accepted["digest"] = Botan::hex_encode(hash->final(), false);
        kyo::Status::gauge("config.accepted", [accepted] { return accepted; });
    }
    try {
        startDetached([this] { subscribeResources(); });
    } catch (const std::system_error& error) {
        static kyo::Counter& failed = kyo::Status::counter("threads.failed");
        failed.add();
        VLM_LOG(3, "No thread to subscribe the resources could be started: " << error.what());
    }
    return isGood ? "" : "the base setup refused it; the vehicle's log gives the reason";
}

// The order matters: the ingress queue runs before any collector exists, the collectors have subscribed to
// the ticks before the bus runs, and the clock comes last, so that the first tick finds every collector.
bool ConfigResponseHandler::setUp(const std::function<bool()>& createConfigParser) {
    static kyo::Counter& refused = kyo::Status::counter("config.refused");
    const std::lock_guard<std::mutex> lock(m_setupMutex);
    if (!createConfigParser()) {
        refused.add();
        VLM_LOG(3, "Create Config parser from failed FAILED");
        return false;
    }
    if (!initializeServiceDiscovery()) {
        VLM_LOG(3, "Service discovery failed to start");
        return false;
    }
    ConfigErrorCode code = ConfigErrorCode::Ok;
    const std::vector<std::string> configuredServices = m_configParser->getAllConfiguredServices(code);
    if (configuredServices.empty()) {
        refused.add();
        VLM_LOG(3, "Didn't get the list of the services to discover");
        return false;
    }
    startIngressQueue();
    createCollectorObjects();
    PubSubService::getInstance().start();

    std::map<std::string, std::string> collects;
    ServicesAndResources servicesAndResources;
    m_configParser->populateAllServicesAndResources(servicesAndResources);
    m_configParser->getAllCollects(collects);
    VLM_LOG(5, "Size of collect names = " << collects.size());
    VLM_LOG(5, "Size of All services and Resources = " << servicesAndResources.size());
    configureResources(collects, servicesAndResources);

    // A service of an earlier configuration is connected already, or in discovery's queue.
    std::vector<std::string> newServices;
    for (const std::string& service : configuredServices) {
        if (m_discoveredServices.insert(service).second) {
            newServices.push_back(service);
        }
    }
    m_serviceDiscovery->discoverService(newServices);

    const std::string clockName = m_configParser->getClockName();
    const long long duration = m_configParser->getClockDuration();
    VLM_LOG(5, "CLOCK NAME = " << clockName << "  And DURATION = " << duration);
    m_eventControl.initializeOnEventGenerator(clockName, duration);
    return true;
}

bool ConfigResponseHandler::createConfigParserFromFile(std::string path) {
    const auto parser = std::make_shared<ConfigParser>();
    ConfigErrorCode code = ConfigErrorCode::Ok;
    if (!parser->parseFromLocalFile(path, code)) {
        VLM_LOG(3, "Config file parsing failed");
        VLM_LOG(
            3, "Nothing is collected from the collector configuration " << path << ": " << parser->refusal());
        return false;
    }
    return adopt(parser);
}

bool ConfigResponseHandler::createConfigParserFromJson(Value& config) {
    const auto parser = std::make_shared<ConfigParser>();
    ConfigErrorCode code = ConfigErrorCode::Ok;
    if (!parser->parseFromJson(config, code)) {
        VLM_LOG(3, "Config file parsing failed");
        VLM_LOG(3, "The backend's collector configuration is not used: " << parser->refusal());
        return false;
    }
    return adopt(parser);
}

bool ConfigResponseHandler::adopt(std::shared_ptr<ConfigParser> parser) {
    m_configParser = std::move(parser);
    ConfigErrorCode code = ConfigErrorCode::Ok;
    const std::string name = m_configParser->getConfigName();
    const std::string version = m_configParser->getConfigVersion();
    VLM_LOG(5, "Configuration " << name << ", version " << version << ", clock "
                                << m_configParser->getClockName() << " of "
                                << m_configParser->getClockDuration() << " ms, first report "
                                << m_configParser->getReportName() << " of application "
                                << m_configParser->getApplicationName());
    VlmReportControl::getInstance().initializeReportControl(m_configParser->configReportBlock(code), name,
                                                            version);
    VlmReportControl::getInstance().start();
    return true;
}

bool ConfigResponseHandler::initializeServiceDiscovery() {
    if (m_serviceDiscovery == nullptr) {
        // Never destroyed: its thread waits on its condition until the process ends.
        m_serviceDiscovery = new ServiceDiscovery;
    }
    m_serviceDiscovery->start();
    return m_serviceDiscovery->started();
}

void ConfigResponseHandler::startIngressQueue() {
    IngressQueue& queue = *IngressQueue::getInstance();
    if (!queue.started()) {
        queue.setDispatch([](Record record) {
            ConfigResponseHandler::getInstance()->sendRecordsToCollectorObject(std::move(record));
        });
    }
    queue.start();
}

void ConfigResponseHandler::createCollectorObjects() {
    ConfigErrorCode code = ConfigErrorCode::Ok;
    std::map<std::string, long long> collectorNames;
    m_configParser->getAllCollectorNames(code, collectorNames);
    if (collectorNames.empty() || m_configParser->getAllCollectorBlock().empty()) {
        VLM_LOG(3, "No Collector records found in config file.");
        return;
    }
    for (const ConfigParser::Collect& collect : m_configParser->collects()) {
        VLM_LOG(5, "Creating collector object for " << collect.name);
        {
            const std::shared_lock<std::shared_mutex> lock(m_tableMutex);
            if (m_collectorMap.count(collect.name) != 0) {
                VLM_LOG(5, "Collector " << collect.name << " exists and stays as it is");
                continue;
            }
        }
        CollectorOnEventType type = m_configParser->getOnEventType(collect.on, code);
        if (code != ConfigErrorCode::Ok) {
            VLM_LOG(4, "Didn't find the OnEvent type for " << collect.name << ". Hence defaulting to Clock.");
            type = CollectorOnEventType::Clock;
        }
        auto collector = std::make_shared<Collector>(collect.name, collect.history.value_or(0), collect.serv,
                                                     collect.res, collect.index, collect.on, type);
        const std::unique_lock<std::shared_mutex> lock(m_tableMutex);
        m_collectorMap.emplace(collect.name, std::move(collector));
    }
}

void ConfigResponseHandler::configureResources(const std::map<std::string, std::string>& collects,
                                               const ServicesAndResources& servicesAndResources) {
    FilesReturnCode code = FilesReturnCode::Ok;
    VlmJsonCatalog& catalog = *VlmJsonCatalog::getInstance();
    for (const auto& [service, resources] : servicesAndResources) {
        const std::string proxy = proxyNames::of(service);
        for (const std::string& resource : resources) {
            // Once for each resource: a new object would have no keys and no collectors.
            if (m_createdResources.emplace(service, resource).second) {
                services().createResourceObject(proxy, {resource});
                services().setSomeIPKey(proxy, resource, catalog.getSomeIPKey(service, resource, code));
            }
            std::vector<int> indexes;
            m_configParser->getAllIndexes(service, resource, indexes);
            VLM_LOG(5, "Configured list of indexes size = " << indexes.size());
            for (const int index : indexes) {
                configureIndex(service, resource, index, collects);
            }
        }
    }
    const std::unique_lock<std::shared_mutex> lock(m_tableMutex);
    m_configParser->populateAllServicesAndResources(m_configuredResources);
    ++m_configurations;
}

void ConfigResponseHandler::configureIndex(const std::string& service, const std::string& resource, int index,
                                           const std::map<std::string, std::string>& collects) {
    const std::string proxy = proxyNames::of(service);
    if (m_configuredIndexes.emplace(service, resource, index).second) {
        std::vector<std::string> properties =
            VlmJsonCatalog::getInstance()->getAllProperties(service, resource, index);
        VLM_LOG(5, "Size of list of properties for resource " << resource << " = " << properties.size());
        services().setSomeIPIndexAttribute(proxy, resource, index, properties);
    }
    // One collector for each service, resource and index: the first one that was configured.
    const auto collect = collects.find(proxy + "|" + resource + "|" + std::to_string(index));
    if (collect == collects.end()) {
        return;
    }
    const auto [assigned, isNew] = m_assignedCollectors.insert(*collect);
    if (!isNew) {
        if (assigned->second != collect->second) {
            VLM_LOG(3, "Collector " << collect->second << " stays empty: the records of " << collect->first
                                    << " go to " << assigned->second);
        }
        return;
    }
    VLM_LOG(5, "COLLECT MAP FOUND, collectName = " << collect->second);
    services().setCollectorName(proxy, resource, index, collect->second);
}

void ConfigResponseHandler::sendRecordsToCollectorObject(Record record) {
    static auto& withoutCollector = kyo::Status::counter("records.withoutCollector");
    std::shared_ptr<Collector> collector;
    {
        const std::string& name = record.collectorName;
        const std::shared_lock<std::shared_mutex> lock(m_tableMutex);
        if (const auto entry = m_collectorMap.find(name); !name.empty() && entry != m_collectorMap.end()) {
            collector = entry->second;
        }
    }
    if (!collector) {
        VLM_LOG_AS(3, kSendRecords, "Collector name is not found, dropping the record");
        withoutCollector.add();
        return;
    }
    collector->insertRecord(std::move(record));
}

ConfigResponseHandler::ServicesAndResources ConfigResponseHandler::configuredResources() const {
    const std::shared_lock<std::shared_mutex> lock(m_tableMutex);
    return m_configuredResources;
}

void ConfigResponseHandler::subscribeResources() {
    if (m_subscribing.exchange(true)) {
        VLM_LOG(5, "A thread subscribes the resources already");
        return;
    }
    ServicesAndResources configured;
    bool isRead = false;
    std::uint64_t configurations = 0;
    for (;;) {
        // Read once, and again when a further configuration has added to it.
        if (const std::uint64_t now = m_configurations; !isRead || now != configurations) {
            configured = configuredResources();
            configurations = now;
            isRead = true;
            VLM_LOG(5, "Size of All services and Resources = " << configured.size());
        }
        subscribeOnce(configured, [] { std::this_thread::sleep_for(kPauseBetweenServices); });
        VLM_LOG(5, "Sleeping for 10 secs before retry");
        std::this_thread::sleep_for(kPauseBetweenPasses);
    }
}

void ConfigResponseHandler::subscribeOnce(const ServicesAndResources& configured,
                                          const std::function<void()>& pause) {
    bool isFirst = true;
    for (const auto& [service, resources] : configured) {
        if (!isFirst) {
            pause();
        }
        isFirst = false;
        const std::string proxy = proxyNames::of(service);
        for (const std::string& resource : resources) {
            if (services().isResourceSubscribed(proxy, resource)) {
                continue;
            }
            if (services().SubscribeResource(proxy, resource)) {
                VLM_LOG(5, "Successfully subscribed for the resource " << resource);
            } else {
                VLM_LOG(3, "Failed to subscribe for service = " << proxy << ", resource = " << resource);
            }
        }
    }
}

}  // namespace vlmProd
