#pragma once
#include <atomic>
#include <functional>
#include <map>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kyo/Event.h"
#include "kyo/Json.h"

// Only the generic conversion needs the reflection library: the adapters compile without it.
namespace rttr {
class variant;
}

namespace vlmProd {

/// One configured event of one vehicle service. It completes the records of the event's samples and inserts
/// them into the ingress queue.
///
/// Samples arrive on the middleware's threads while the configuration thread may still set names: any thread
/// may call the operations. They block only for a short lock.
class Resource {
  public:
    explicit Resource(std::string name);
    virtual ~Resource();
    Resource(const Resource&) = delete;
    Resource& operator=(const Resource&) = delete;

    const std::string& getName() const { return m_name; }

    /// The name under which the adapter writes the key member into a record.
    void setSomeIPKey(std::string key);
    void setSomeIPIndexAttribute(int index, std::vector<std::string> names);
    void addAttribute(std::string name);
    void addAttributes(std::vector<std::string> names);
    /// Gives records of that service, resource and index that collector's name from now on.
    void setCollectorName(std::string service, std::string resource, int index, std::string collector);

    void setSubscribed();
    bool isSubscribed();

    /// Adds "collectorName" and "index" to the record if a collector is registered for its key value, and
    /// inserts it into the ingress queue. A record without the key member, or with one outside the range of
    /// int, is inserted without them.
    void processData(kyo::Json::Value record);

    /// The generic conversion of a reflected sequence of structures. Fills the work value and inserts no
    /// record.
    void processData(std::string name, rttr::variant samples);
    void addToJsonValue(std::string name, rttr::variant& value);
    void insertEnumValuesinJson(std::string name, rttr::variant& value);
    void printJsonValues();
    /// A copy of the work value of the generic conversion.
    kyo::Json::Value workValue() const;

  private:
    /// Compares keys of strings with keys of views, so that a lookup copies no text.
    struct KeyLess {
        using is_transparent = void;
        template <typename A, typename B>
        bool operator()(const A& a, const B& b) const {
            using View = std::tuple<int, std::string_view, std::string_view>;
            return View(std::get<0>(a), std::get<1>(a), std::get<2>(a)) <
                   View(std::get<0>(b), std::get<1>(b), std::get<2>(b));
        }
    };

    void addTo(kyo::Json::Value& work, const std::string& name, rttr::variant& value);
    void insertEnum(kyo::Json::Value& work, const std::string& name, rttr::variant& value);

    std::atomic<int> m_subscribed{0};
    const std::string m_name;

    mutable std::shared_mutex m_configuration;  ///< guards the members below
    std::string m_someIPKey;
    std::map<int, std::vector<std::string>> m_indexAttributes;
    /// By index, service and resource.
    std::map<std::tuple<int, std::string, std::string>, std::string, KeyLess> m_collectorNames;
    std::vector<std::string> m_attributes;

    mutable kyo::Mutex m_workMutex;  ///< guards m_work
    kyo::Json::Value m_work{kyo::Json::objectValue};
    kyo::Event m_event;
};

}  // namespace vlmProd
