#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bus/EventControl.h"
#include "collect/Collector.h"
#include "collect/Record.h"
#include "config/ConfigParser.h"
#include "kyo/Json.h"
#include "services/ServiceDiscovery.h"
#include "services/ServiceMapObjectHandler.h"

namespace vlmProd {

/// The base setup: starts the collection that a collector configuration describes, and gives every record to
/// its collector.
///
/// A further configuration adds collectors, reports, resources and subscriptions; existing ones stay as they
/// are, and the clock is replaced. A refused configuration creates no collector and keeps the clock. If its
/// only fault is an empty "COLLECT", its reports have been added by then and are sent empty. Any thread may
/// call the operations; one setup runs at a time.
class ConfigResponseHandler {
  public:
    /// Created on first use and never destroyed: dispatch threads and the subscription thread use it until
    /// the process ends.
    static ConfigResponseHandler* getInstance();

    ConfigResponseHandler() = default;
    /// Uses the caller's adapters and discovery, which must outlive this object.
    ConfigResponseHandler(ServiceMapObjectHandler& services, ServiceDiscovery& discovery);
    ConfigResponseHandler(const ConfigResponseHandler&) = delete;
    ConfigResponseHandler& operator=(const ConfigResponseHandler&) = delete;

    /// Returns true when the whole configuration was started. On false the log has the reason, and an earlier
    /// configuration continues to run.
    bool doBaseSetupFromLocalConfig(std::string path);
    /// The same for the backend's configuration, which `recordId` and `recordBody` identify in the log.
    bool doBaseSetupFromOrxConfigResponse(kyo::Json::Value config, std::string recordId = "",
                                          std::string recordBody = "");

    /// Sets up the backend's configuration and starts a thread that subscribes the resources. Returns why the
    /// configuration does not run; an empty text when it does.
    std::string takeFromBackend(kyo::Json::Value config, const std::string& recordId,
                                const std::string& recordBody);

    // The steps of the setup, in their order.
    bool createConfigParserFromFile(std::string path);
    bool createConfigParserFromJson(kyo::Json::Value& config);
    bool initializeServiceDiscovery();
    /// Starts the ingress queue with the collectors of getInstance() as receivers.
    void startIngressQueue();
    void createCollectorObjects();

    /// Gives the record to the collector in its "collectorName", or drops and counts it. Called on the
    /// ingress queue's dispatch threads, concurrently.
    void sendRecordsToCollectorObject(Record record);
    void sendRecordsToCollectorObject(kyo::Json::Value record) {
        sendRecordsToCollectorObject(Record(record));
    }

    /// Subscribes the configured resources in endless passes. Returns at once when another thread does so
    /// already.
    void subscribeResources();

    using ServicesAndResources = std::map<std::string, std::vector<std::string>>;
    /// Runs one pass: tries each resource that is not subscribed yet. Calls `pause` between two services.
    void subscribeOnce(const ServicesAndResources& configured, const std::function<void()>& pause);
    /// Returns the resources that subscribeResources() subscribes.
    ServicesAndResources configuredResources() const;

  private:
    bool setUp(const std::function<bool()>& createConfigParser);
    bool adopt(std::shared_ptr<ConfigParser> parser);
    void configureResources(const std::map<std::string, std::string>& collects,
                            const ServicesAndResources& servicesAndResources);
    void configureIndex(const std::string& service, const std::string& resource, int index,
                        const std::map<std::string, std::string>& collects);
    ServiceMapObjectHandler& services();

    ServiceMapObjectHandler* const m_services = nullptr;  ///< nullptr: the process's registry

    std::mutex m_setupMutex;  ///< one setup at a time
    // Guarded by m_setupMutex.
    std::shared_ptr<ConfigParser> m_configParser;  ///< of the last accepted configuration
    EventControl m_eventControl;
    ServiceDiscovery* m_serviceDiscovery = nullptr;  ///< never destroyed
    std::set<std::string> m_discoveredServices;
    std::set<std::pair<std::string, std::string>> m_createdResources;
    std::set<std::tuple<std::string, std::string, int>> m_configuredIndexes;
    std::map<std::string, std::string> m_assignedCollectors;  ///< "<serv>Proxy|<res>|<index>" to a collector

    mutable std::shared_mutex m_tableMutex;
    // Guarded by m_tableMutex: read by dispatch threads, the subscription thread and the status.
    std::map<std::string, std::shared_ptr<Collector>> m_collectorMap;
    ServicesAndResources m_configuredResources;

    std::atomic<std::uint64_t> m_configurations{0};  ///< grows when m_configuredResources changes
    std::atomic<bool> m_subscribing{false};
};

}  // namespace vlmProd
