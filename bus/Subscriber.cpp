#include "bus/Subscriber.h"

#include <utility>

#include "bus/PubSubService.h"

namespace vlmProd {

void EventSubscriberCallback::setOnEventCallback(std::function<void(Message)> callback) {
    m_callback = std::move(callback);
}

void EventSubscriberCallback::executeOnEventCallback(Message message) {
    m_callback(std::move(message));
}

void SubscriberImpl::setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) {
    m_callback = std::move(callback);
}

void SubscriberImpl::addSubscriber(Message::MessageTopicType topic) {
    PubSubService::getInstance().addSubscriber(topic, shared_from_this());
}

void SubscriberImpl::unSubscribe(Message::MessageTopicType /*topic*/) {}

void SubscriberImpl::subscribeForOnEventCallback() {}

void SubscriberImpl::sendMessage(Message& message) {
    if (!m_callback) {
        throw std::bad_function_call();
    }
    m_callback->executeOnEventCallback(message);
}

EventSubscriber::EventSubscriber() : m_impl(std::make_shared<SubscriberImpl>()) {}

void EventSubscriber::setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) {
    m_impl->setEventSubscriberCallback(std::move(callback));
}

void EventSubscriber::addSubscriber(Message::MessageTopicType topic) {
    m_impl->addSubscriber(topic);
}

void EventSubscriber::unSubscribe(Message::MessageTopicType topic) {
    m_impl->unSubscribe(topic);
}

void EventSubscriber::subscribeForOnEventCallback() {
    m_impl->subscribeForOnEventCallback();
}

void EventSubscriber::sendMessage(Message& message) {
    m_impl->sendMessage(message);
}

}  // namespace vlmProd
