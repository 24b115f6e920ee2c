#pragma once
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ac/com/types.h"
#include "services/adapters/RecordWriter.h"
#include "services/adapters/ServiceAdapterBase.h"

namespace vlmProd {

/// The part of an adapter that depends on the proxy's type. `Derived` has
///     static constexpr const char* kClassName;
///     // Calls visit(name, pointer to the proxy's event, pointer to the callback) for each event until one
///     // call returns true; returns what the last call returned.
///     template <typename Visitor> static bool visitEvents(Visitor&& visit);
/// and one callback for each event, which takes the delivered samples by value.
template <class Derived, class ProxyType>
class ServiceAdapter : public ServiceAdapterBase {
  public:
    using Proxy = ProxyType;

    explicit ServiceAdapter(std::string name) : ServiceAdapterBase(Derived::kClassName, std::move(name)) {}

  protected:
    bool findAndConnect() override {
        const auto handles = Proxy::FindService("*");
        if (handles.empty()) {
            return false;
        }
        auto proxy = std::make_shared<Proxy>(handles.front());
        const std::lock_guard<std::mutex> lock(m_proxyMutex);
        m_proxy = std::move(proxy);
        return true;
    }

    bool isConnected() const override { return proxy() != nullptr; }

    Subscription subscribeEvent(const std::string& event) override {
        const auto connected = proxy();
        auto result = Subscription::NoSuchEvent;
        auto* const self = static_cast<Derived*>(this);
        Derived::visitEvents([&](const char* name, auto proxyEvent, auto callback) {
            if (event != name) {
                return false;
            }
            // The registry owns the adapter until the process ends, and the adapter its proxy.
            const bool subscribed = ((*connected).*proxyEvent).Subscribe([self, callback](auto samples) {
                (self->*callback)(std::move(samples));
            });
            result = subscribed ? Subscription::Done : Subscription::Refused;
            return true;
        });
        return result;
    }

    /// Creates one record for each sample, in order: `write(sample, record)` writes the fields, the resource
    /// of the event completes and inserts the record. `event` must live until the process ends.
    template <class DT, class Write>
    void receiveSamples(std::vector<DT>& samples, const char* event, Write&& write) {
        countReceived(samples.size());
        for (const DT& sample : samples) {
            const auto resource = resourceOfSample(event);
            if (!resource) {
                continue;
            }
            kyo::Json::Value record = newRecord(event);
            write(sample, record);
            forward(*resource, std::move(record));
        }
    }

  private:
    std::shared_ptr<Proxy> proxy() const {
        const std::lock_guard<std::mutex> lock(m_proxyMutex);
        return m_proxy;
    }

    mutable std::mutex m_proxyMutex;
    std::shared_ptr<Proxy> m_proxy;  ///< guarded by m_proxyMutex; empty until connected
};

}  // namespace vlmProd
