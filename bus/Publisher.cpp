#include "bus/Publisher.h"

#include "bus/PubSubService.h"

namespace vlmProd {

void PublisherImpl::publishMessage(Message& message) {
    PubSubService::getInstance().addMessageToQueue(message);
}

EventPublisher::EventPublisher() : m_impl(std::make_shared<PublisherImpl>()) {}

void EventPublisher::publishMessage(Message& message) {
    m_impl->publishMessage(message);
}

}  // namespace vlmProd
