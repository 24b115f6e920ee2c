#pragma once
/// The client side of a service: the base of generated proxies.
///
/// A proxy may be created before the middleware is started (runtime/component.h) and may outlive it: its
/// requests take effect whenever the middleware runs. A request for an event does not depend on the state of
/// the subscription: when a service comes back, it is subscribed again and delivers.
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ac/com/types.h"
#include "someip/Samples.h"

namespace someip {
class Runtime;
class EventReceiver;
}  // namespace someip

namespace ac::com {

/// Returns the instances of a service that are offered now. Does not block: the first call starts the search,
/// later calls return what has been found. `instance` is "*" for any, or a decimal id; another text finds
/// nothing and is logged. Any thread.
HandleContainer findService(const ServiceInterface& service, const std::string& instance);
/// As above, in the caller's runtime (tests).
HandleContainer findService(const ServiceInterface& service, const std::string& instance,
                            someip::Runtime& runtime);

/// A client's view of one instance of a service. Only its events cause traffic.
class ProxyBase {
  public:
    /// Uses the middleware of the process.
    ProxyBase(const ServiceInterface& service, const ServiceHandle& handle);
    /// Uses the caller's runtime (tests), which must outlive the proxy.
    ProxyBase(const ServiceInterface& service, const ServiceHandle& handle, someip::Runtime& runtime);
    ~ProxyBase();
    ProxyBase(const ProxyBase&) = delete;
    ProxyBase& operator=(const ProxyBase&) = delete;

    const ServiceInterface& serviceInterface() const noexcept { return m_service; }
    const ServiceHandle& handle() const noexcept { return m_handle; }
    someip::Runtime& runtime() const noexcept { return m_runtime; }

  private:
    const ServiceInterface m_service;
    const ServiceHandle m_handle;
    someip::Runtime& m_runtime;
};

/// The part of an event that does not depend on its data type.
class EventSubscription {
  public:
    EventSubscription(const EventSubscription&) = delete;
    EventSubscription& operator=(const EventSubscription&) = delete;

    /// Withdraws the request and sends stop-subscribe. Waits for a running handler, unless that handler is
    /// the caller; no handler is called afterwards.
    void Unsubscribe();
    /// True while the peer acknowledges the subscription.
    bool subscribed() const;

  protected:
    /// Called on a thread of the middleware, one message at a time, outside any lock.
    using PayloadHandler =
        std::function<void(std::span<const std::uint8_t> payload, someip::DecodeReport& report)>;

    EventSubscription(ProxyBase& owner, const EventInterface& event);
    ~EventSubscription();
    bool subscribe(PayloadHandler handler);

  private:
    const ServiceInterface m_service;
    const ServiceHandle m_handle;
    const EventInterface m_event;
    someip::Runtime& m_runtime;
    std::mutex m_guard;  ///< guards m_receiver; never locked while waiting for a handler
    std::shared_ptr<someip::EventReceiver> m_receiver;
};

/// An event of a service. Any thread may call Subscribe() and Unsubscribe().
template <typename DT>
class ProxyEvent : public EventSubscription {
  public:
    using ReceiveHandler = std::function<void(std::vector<DT>)>;

    ProxyEvent(ProxyBase& owner, const EventInterface& event) : EventSubscription(owner, event) {}

    /// Subscribes now if the service is offered, and whenever it comes back. `handler` is called on a thread
    /// of the middleware with the samples of one notification; its exceptions are logged. A second call
    /// replaces the handler. Returns false for an empty handler.
    bool Subscribe(ReceiveHandler handler) {
        if (!handler) {
            return false;
        }
        return subscribe(
            [call = std::move(handler)](std::span<const std::uint8_t> payload, someip::DecodeReport& report) {
                std::vector<DT> samples;
                if (someip::decodeSamples(payload, samples, report)) {
                    call(std::move(samples));
                }
            });
    }
};

}  // namespace ac::com
