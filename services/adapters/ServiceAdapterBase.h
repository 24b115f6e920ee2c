#pragma once
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "kyo/Json.h"
#include "services/BaseServiceObject.h"
#include "services/Resource.h"

namespace vlmProd {

/// The part of an adapter that does not depend on the proxy's type: the resources, connecting, subscribing,
/// and the members that every record has. Its log lines have the concrete class's signatures.
///
/// Samples arrive on the middleware's threads while the configuration and discovery threads use the adapter:
/// any thread may call the operations.
class ServiceAdapterBase : public BaseServiceObject {
  public:
    bool initProxy() override;
    bool SubscribeResource(std::string resource) override;
    void createResourceObject(std::vector<std::string> resources) override;
    bool isSubscribed(std::string resource) override;
    void setSomeIPKey(std::string resource, std::string key) override;
    void setSomeIPIndexAttribute(std::string resource, int index, std::vector<std::string>& names) override;
    void setCollectorName(std::string service, std::string resource, int index,
                          std::string collector) override;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    /// Appends the names to the resource's attribute list. It hides, and does not override, the operation of
    /// the base class that takes the names by value, which does nothing in every adapter.
    virtual void addProperties(std::string resource, std::vector<std::string>& names);
#pragma GCC diagnostic pop

    /// The registry's name of the service; every record has it.
    const std::string& serviceName() const {
        return m_serviceName;
    }
    /// Returns the resource of that event, or nullptr.
    std::shared_ptr<Resource> findResource(const std::string& resource) const;
    /// Sets the pause of initProxy() after an attempt that finds nothing; 1 s otherwise.
    void setAttemptPause(std::chrono::milliseconds pause) {
        m_attemptPause = pause;
    }

  protected:
    enum class Subscription { Done, Refused, NoSuchEvent };

    /// `className` must live as long as the adapter.
    ServiceAdapterBase(const char* className, std::string serviceName);

    /// Searches the service once and connects to the first instance found.
    virtual bool findAndConnect() = 0;
    virtual bool isConnected() const = 0;
    virtual Subscription subscribeEvent(const std::string& event) = 0;

    /// Returns the event's resource. If there is none, logs that and creates an empty entry, as a map's
    /// subscript does.
    std::shared_ptr<Resource> resourceOfSample(const char* event);
    /// Returns a record with the members that every record has. It refers to `event` and to this adapter's
    /// name and must not outlive them.
    kyo::Json::Value newRecord(const char* event) const;
    static void countReceived(std::size_t samples);
    static void forward(Resource& resource, kyo::Json::Value&& record);

  private:
    const char* const m_className;
    const std::string m_serviceName;
    std::chrono::milliseconds m_attemptPause{1000};
    std::mutex m_connecting;  ///< one initProxy() at a time
    std::atomic<bool> m_found{false};

    mutable std::shared_mutex m_resourceMutex;  ///< guards the map, not the resources
    std::map<std::string, std::shared_ptr<Resource>, std::less<>> m_resources;  ///< an entry may be empty
    std::mutex m_subscribing;  ///< two threads never subscribe one resource twice
};

}  // namespace vlmProd
