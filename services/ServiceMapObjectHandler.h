#pragma once
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "services/BaseServiceObject.h"

namespace vlmProd {

/// The registry of vehicle services: one adapter per known service, by its proxy's name ("GNSSProxy"). Each
/// operation finds the adapter by exactly that name and passes it the other arguments; for an unknown name it
/// logs a message and returns the neutral result. Filled once, then only read: any thread may call it without
/// a lock. Whether an operation blocks depends on the adapter (findService() does for some seconds).
class ServiceMapObjectHandler {
  public:
    using Adapters = std::vector<std::pair<std::string, std::shared_ptr<BaseServiceObject>>>;

    /// Returns the process's instance, with all registered adapters. Created by the first call, on any
    /// thread, and never destroyed: the middleware's threads may still deliver to the adapters at exit.
    static ServiceMapObjectHandler* GetInstance();

    ServiceMapObjectHandler();
    explicit ServiceMapObjectHandler(Adapters adapters);
    ~ServiceMapObjectHandler();

    bool findService(std::string service);
    std::shared_ptr<BaseServiceObject> getServiceObject(std::string service);
    void createResourceObject(std::string service, std::vector<std::string> resources);
    /// Has no effect: no adapter overrides the by-value operation that it calls.
    void addAttributesToResource(std::string service, std::string resource, std::vector<std::string> names);
    void setSomeIPKey(std::string service, std::string resource, std::string key);
    void setSomeIPIndexAttribute(std::string service, std::string resource, int index,
                                 std::vector<std::string>& names);
    void setCollectorName(std::string service, std::string resource, int index, std::string collector);
    bool SubscribeResource(std::string service, std::string resource);
    bool isResourceSubscribed(std::string service, std::string resource);
    void RunOnThread();

    std::size_t size() const { return m_services.size(); }

  private:
    void createServiceObject(Adapters adapters);
    /// Returns nullptr for an unknown service.
    BaseServiceObject* find(const std::string& service) const;

    std::map<std::string, std::shared_ptr<BaseServiceObject>> m_services;
};

}  // namespace vlmProd
