#include "com/Skeleton.h"

#include "someip/Runtime.h"

namespace ac::com {

SkeletonBase::SkeletonBase(const ServiceInterface& service, std::uint16_t instance)
    : SkeletonBase(service, instance, someip::Runtime::process()) {}

SkeletonBase::SkeletonBase(const ServiceInterface& service, std::uint16_t instance, someip::Runtime& runtime)
    : m_service(service),
      m_runtime(runtime),
      m_provider(std::make_shared<someip::ServiceProvider>(service, instance)) {}

SkeletonBase::~SkeletonBase() {
    StopOfferService();
}

bool SkeletonBase::OfferService() {
    return m_runtime.offer(m_provider);
}

void SkeletonBase::StopOfferService() {
    m_runtime.stopOffer(m_provider);
}

EventPublication::EventPublication(SkeletonBase& owner, const EventInterface& event)
    : m_runtime(owner.runtime()),
      m_provider(owner.provider()),
      m_sender(owner.runtime().addEvent(owner.provider(), event)) {}

EventPublication::~EventPublication() {
    m_runtime.removeEvent(m_provider, m_sender);
}

std::size_t EventPublication::subscribers() const {
    return m_sender->subscribers();
}

void EventPublication::setSubscriptionHandler(std::function<void(const std::string&, bool)> handler) {
    m_sender->setHandler(std::move(handler));
}

std::vector<std::uint8_t>& EventPublication::messageBuffer() {
    thread_local std::vector<std::uint8_t> buffer;
    if (buffer.capacity() > (256u << 10)) {
        buffer = {};  // release the memory of an unusually large message
    }
    buffer.assign(someip::kHeaderSize, 0);
    return buffer;
}

bool EventPublication::send(std::vector<std::uint8_t>& message) {
    return m_sender->send(message);
}

bool EventPublication::sendFaulty(std::vector<std::uint8_t>& message, const someip::WireFault& fault) {
    return m_sender->sendFaulty(message, fault);
}

}  // namespace ac::com
