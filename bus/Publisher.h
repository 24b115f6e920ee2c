#pragma once
#include <memory>

#include "bus/Message.h"

namespace vlmProd {

/// Puts messages on the bus. publishMessage() copies the message and never blocks for long.
class IPublisher {
  public:
    virtual ~IPublisher() = default;
    virtual void publishMessage(Message& message) = 0;
};

class PublisherImpl : public IPublisher {
  public:
    void publishMessage(Message& message) override;
};

/// The publisher for use outside bus/.
class EventPublisher : public IPublisher {
  public:
    EventPublisher();
    void publishMessage(Message& message) override;

  private:
    const std::shared_ptr<PublisherImpl> m_impl;
};

}  // namespace vlmProd
