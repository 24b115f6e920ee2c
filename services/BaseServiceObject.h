#pragma once
#include <string>
#include <vector>

namespace vlmProd {

/// What the registry knows of a vehicle service's adapter. Every operation may be called from several
/// threads at once. Here each does nothing and reports no success.
class BaseServiceObject {
  public:
    virtual ~BaseServiceObject() = default;
    /// Looks for the service and connects to it. May block for some seconds. True when it has connected
    /// now, false otherwise, also when it was connected before.
    virtual bool initProxy() { return false; }
    /// Subscribes the resource's event. True when it is subscribed. False, with an error in the log at each
    /// call, for a name that is no event of the service: only a corrected configuration helps.
    virtual bool SubscribeResource(std::string /*resource*/) { return false; }
    virtual void createResourceObject(std::vector<std::string> /*resources*/) {}
// The adapters hide this operation on purpose; compilers differ in which of the two places they blame.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    /// No adapter overrides this one: theirs takes the names by reference.
    virtual void addProperties(std::string /*resource*/, std::vector<std::string> /*names*/) {}
#pragma GCC diagnostic pop
    virtual bool isSubscribed(std::string /*resource*/) {
        return false;
    }
    /// `key` is the name of the member whose value selects a sample's index.
    virtual void setSomeIPKey(std::string /*resource*/, std::string /*key*/) {}
    virtual void setSomeIPIndexAttribute(std::string /*resource*/, int /*index*/,
                                         std::vector<std::string>& /*names*/) {}
    /// Samples of that service, resource and index go to that collector from now on.
    virtual void setCollectorName(std::string /*service*/, std::string /*resource*/, int /*index*/,
                                  std::string /*collector*/) {}
};

}  // namespace vlmProd
