#pragma once
#include <functional>
#include <memory>

#include "bus/Message.h"

namespace vlmProd {

/// The function that a subscriber's messages end in. Set it before the subscription is made; messages then
/// call it on delivery threads, possibly several at once.
class EventSubscriberCallback {
  public:
    /// Replaces any earlier function.
    void setOnEventCallback(std::function<void(Message)> callback);
    /// Calls the function with a copy of the message; std::bad_function_call when none was set.
    void executeOnEventCallback(Message message);

  private:
    std::function<void(Message)> m_callback;
};

/// One receiver of messages. sendMessage() is called on a delivery thread of the bus's own, one for each
/// message, so that a slow subscriber holds nobody up.
class ISubscriber {
  public:
    virtual ~ISubscriber() = default;
    virtual void setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) = 0;
    virtual void addSubscriber(Message::MessageTopicType topic) = 0;
    virtual void unSubscribe(Message::MessageTopicType topic) = 0;
    virtual void subscribeForOnEventCallback() = 0;
    virtual void sendMessage(Message& message) = 0;
};

/// Must be owned by a std::shared_ptr: addSubscriber() raises std::bad_weak_ptr otherwise. The bus owns it
/// too from then on.
class SubscriberImpl : public ISubscriber, public std::enable_shared_from_this<SubscriberImpl> {
  public:
    void setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) override;
    void addSubscriber(Message::MessageTopicType topic) override;
    void unSubscribe(Message::MessageTopicType topic) override;
    void subscribeForOnEventCallback() override;
    void sendMessage(Message& message) override;

  private:
    std::shared_ptr<EventSubscriberCallback> m_callback;
};

/// What subscribing parts of the system hold. Wire it in this order: setEventSubscriberCallback() with a
/// callback object that has its function, then addSubscriber().
class EventSubscriber : public ISubscriber {
  public:
    EventSubscriber();
    void setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) override;
    void addSubscriber(Message::MessageTopicType topic) override;
    void unSubscribe(Message::MessageTopicType topic) override;
    void subscribeForOnEventCallback() override;
    void sendMessage(Message& message) override;

  private:
    const std::shared_ptr<SubscriberImpl> m_impl;
};

}  // namespace vlmProd
