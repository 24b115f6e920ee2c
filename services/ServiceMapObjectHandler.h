#pragma once
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "services/BaseServiceObject.h"

namespace vlmProd {

/// The registry of vehicle services: one adapter per known service, by its proxy's name ("GNSSProxy"). Each
/// operation looks the service up by exactly that name and hands the rest to the adapter; a name that is not
/// there is logged and gives the neutral result. Filled once, then only read: no lock, any thread. Whether an
/// operation blocks is the adapter's matter (findService() does for some seconds).
class ServiceMapObjectHandler {
  public:
    using Adapters = std::vector<std::pair<std::string, std::shared_ptr<BaseServiceObject>>>;

    /// The one instance, with all registered adapters. Created by the first call, whichever thread makes it,
    /// and never destroyed: the middleware's threads may still deliver to the adapters at exit.
    static ServiceMapObjectHandler* GetInstance();

    ServiceMapObjectHandler();
    explicit ServiceMapObjectHandler(Adapters adapters);
    ~ServiceMapObjectHandler();

    bool findService(std::string service);
    std::shared_ptr<BaseServiceObject> getServiceObject(std::string service);
    void createResourceObject(std::string service, std::vector<std::string> resources);
    /// Has no effect on any adapter: the by-value operation that it calls is nobody's.
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
    /// Nullptr for an unknown service.
    BaseServiceObject* find(const std::string& service) const;

    std::map<std::string, std::shared_ptr<BaseServiceObject>> m_services;
};

}  // namespace vlmProd
