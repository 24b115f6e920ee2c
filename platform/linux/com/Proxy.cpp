#include "com/Proxy.h"

#include <charconv>

#include "log/PlatformLog.h"
#include "someip/Runtime.h"

namespace ac::com {

HandleContainer findService(const ServiceInterface& service, const std::string& instance,
                            someip::Runtime& runtime) {
    std::uint16_t id = someip::kAnyInstance;
    if (instance != "*") {
        const char* const last = instance.data() + instance.size();
        const auto [end, error] = std::from_chars(instance.data(), last, id);
        if (error != std::errc() || end != last || instance.empty()) {
            KYO_LOG(3, "Service " << service.name << ": \"" << instance
                                  << "\" is neither \"*\" nor an instance id");
            return {};
        }
    }
    HandleContainer handles;
    for (const auto& found : runtime.findService(service, id)) {
        handles.push_back({found.service, found.instance, found.major});
    }
    return handles;
}

HandleContainer findService(const ServiceInterface& service, const std::string& instance) {
    return findService(service, instance, someip::Runtime::process());
}

ProxyBase::ProxyBase(const ServiceInterface& service, const ServiceHandle& handle)
    : ProxyBase(service, handle, someip::Runtime::process()) {}

ProxyBase::ProxyBase(const ServiceInterface& service, const ServiceHandle& handle, someip::Runtime& runtime)
    : m_service(service), m_handle(handle), m_runtime(runtime) {}

ProxyBase::~ProxyBase() = default;

EventSubscription::EventSubscription(ProxyBase& owner, const EventInterface& event)
    : m_service(owner.serviceInterface()),
      m_handle(owner.handle()),
      m_event(event),
      m_runtime(owner.runtime()) {}

EventSubscription::~EventSubscription() {
    Unsubscribe();
}

bool EventSubscription::subscribe(PayloadHandler handler) {
    auto receiver = m_runtime.receive(m_service, m_handle.instanceId, m_event, std::move(handler));
    {
        const std::lock_guard lock(m_guard);
        receiver.swap(m_receiver);
    }
    if (receiver != nullptr) {
        m_runtime.release(receiver);
    }
    return true;
}

void EventSubscription::Unsubscribe() {
    std::shared_ptr<someip::EventReceiver> receiver;
    {
        const std::lock_guard lock(m_guard);
        receiver.swap(m_receiver);
    }
    if (receiver != nullptr) {
        m_runtime.release(receiver);
    }
}

bool EventSubscription::subscribed() const {
    return m_runtime.subscriptionState({{m_service.serviceId, m_handle.instanceId, m_service.majorVersion},
                                        m_event.eventgroupId}) == someip::SubscriptionState::Acknowledged;
}

}  // namespace ac::com
