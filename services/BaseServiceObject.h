#pragma once
#include <string>
#include <vector>

namespace vlmProd {

/// The registry's interface to a vehicle service's adapter. Any thread may call the operations, also
/// concurrently. This class's own do nothing and report no success.
class BaseServiceObject {
  public:
    virtual ~BaseServiceObject() = default;
    /// Searches the service and connects to it. May block for some seconds. Returns true when this call has
    /// connected, false otherwise, also when it was connected before.
    virtual bool initProxy() { return false; }
    /// Subscribes the resource's event. Returns true when it is subscribed. For a name that is no event of
    /// the service, each call logs an error and returns false: only a corrected configuration helps.
    virtual bool SubscribeResource(std::string /*resource*/) { return false; }
    virtual void createResourceObject(std::vector<std::string> /*resources*/) {}
// The adapters hide this operation on purpose; compilers differ in which of the two places they report.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    /// Not overridden: the adapters' operation takes the names by reference.
    virtual void addProperties(std::string /*resource*/, std::vector<std::string> /*names*/) {}
#pragma GCC diagnostic pop
    virtual bool isSubscribed(std::string /*resource*/) {
        return false;
    }
    /// `key` is the name of the member whose value selects a sample's index.
    virtual void setSomeIPKey(std::string /*resource*/, std::string /*key*/) {}
    virtual void setSomeIPIndexAttribute(std::string /*resource*/, int /*index*/,
                                         std::vector<std::string>& /*names*/) {}
    /// Sends samples of that service, resource and index to that collector from now on.
    virtual void setCollectorName(std::string /*service*/, std::string /*resource*/, int /*index*/,
                                  std::string /*collector*/) {}
};

}  // namespace vlmProd
