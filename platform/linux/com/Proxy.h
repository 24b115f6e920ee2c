#pragma once
/// The client side of a service: what generated proxies are made of.
///
/// A proxy may be made before the middleware is started (runtime/component.h) and may outlive it: what it
/// wants is remembered and takes effect whenever the middleware runs. The wish to receive an event is kept
/// apart from the state of the subscription: a service that dies and comes back delivers again by itself.
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

/// The instances of a service that are offered at this moment. Does not block: the first call starts the
/// search, and a later call answers what has been found by then. `instance` is "*" for any, or a decimal id;
/// another text finds nothing and is logged. Any thread.
HandleContainer findService(const ServiceInterface& service, const std::string& instance);
/// The same in a middleware of the caller's own (tests).
HandleContainer findService(const ServiceInterface& service, const std::string& instance,
                            someip::Runtime& runtime);

/// One instance of a service as its client sees it. Owns nothing on the wire; its events do.
class ProxyBase {
  public:
    /// Takes part in the middleware of the process.
    ProxyBase(const ServiceInterface& service, const ServiceHandle& handle);
    /// Takes part in a middleware of the caller's own (tests), which must outlive the proxy.
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

/// What the events of all data types share.
class EventSubscription {
  public:
    EventSubscription(const EventSubscription&) = delete;
    EventSubscription& operator=(const EventSubscription&) = delete;

    /// Gives the wish up and says so on the wire. Waits for a handler that is under way, unless it is called
    /// from that handler; afterwards no handler is called.
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
    std::mutex m_guard;  ///< guards m_receiver; never held while a handler is waited for
    std::shared_ptr<someip::EventReceiver> m_receiver;
};

/// An event of a service. Subscribe() and Unsubscribe() may be called by any thread.
template <typename DT>
class ProxyEvent : public EventSubscription {
  public:
    using ReceiveHandler = std::function<void(std::vector<DT>)>;

    ProxyEvent(ProxyBase& owner, const EventInterface& event) : EventSubscription(owner, event) {}

    /// Keeps the wish, subscribes now if the service is offered, and again whenever it returns. `handler`
    /// is called on a thread of the middleware with the samples of one notification; exceptions that leave
    /// it are logged. A second call replaces the handler. False for an empty handler.
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
