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

/// The base setup: turns a collector configuration into running collection, and brings every record to its
/// collector.
///
/// A further configuration adds to what runs: collectors, reports, resources and subscriptions that exist
/// stay as they are, new ones are added, and the clock is replaced. A configuration that is refused creates
/// no collector and leaves the clock; one whose only fault is an empty "COLLECT" has added its reports by
/// then, which are sent empty. All operations may be called from any thread; setups wait for each other.
class ConfigResponseHandler {
  public:
    /// Created on first use and never destroyed: dispatch threads and the subscription thread use it until
    /// the process ends.
    static ConfigResponseHandler* getInstance();

    ConfigResponseHandler() = default;
    /// With adapters and a discovery of the caller's own; both must outlive this object.
    ConfigResponseHandler(ServiceMapObjectHandler& services, ServiceDiscovery& discovery);
    ConfigResponseHandler(const ConfigResponseHandler&) = delete;
    ConfigResponseHandler& operator=(const ConfigResponseHandler&) = delete;

    /// True when everything that the configuration asks for was started. On false a message has told why,
    /// and what ran before goes on.
    bool doBaseSetupFromLocalConfig(std::string path);
    /// As above for the backend's configuration. `recordId` and `recordBody` tell in the log which one it is.
    bool doBaseSetupFromOrxConfigResponse(kyo::Json::Value config, std::string recordId = "",
                                          std::string recordBody = "");

    /// The setup from the backend's configuration, and a thread that subscribes the resources. Returns why
    /// the configuration does not run; an empty text when it does.
    std::string takeFromBackend(kyo::Json::Value config, std::string recordId, std::string recordBody);

    // Steps of the setup, which calls them one after the other.
    bool createConfigParserFromFile(std::string path);
    bool createConfigParserFromJson(kyo::Json::Value& config);
    bool initializeServiceDiscovery();
    /// Directs the records of the process to the collectors of getInstance().
    void startIngressQueue();
    void createCollectorObjects();

    /// Hands the record to the collector that its "collectorName" names, or drops and counts it. Called on
    /// the ingress queue's dispatch threads, many at once.
    void sendRecordsToCollectorObject(Record record);
    void sendRecordsToCollectorObject(kyo::Json::Value record) {
        sendRecordsToCollectorObject(Record(record));
    }

    /// Subscribes what is configured in endless passes, as long as the process lives. Returns at once when
    /// another thread does it already.
    void subscribeResources();

    using ServicesAndResources = std::map<std::string, std::vector<std::string>>;
    /// One pass: tries each resource that is not subscribed yet; `pause` is called between two services.
    void subscribeOnce(const ServicesAndResources& configured, const std::function<void()>& pause);
    /// What subscribeResources() walks.
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
    std::shared_ptr<ConfigParser> m_configParser;  ///< of the configuration accepted last
    EventControl m_eventControl;
    ServiceDiscovery* m_serviceDiscovery = nullptr;  ///< left to the operating system
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
