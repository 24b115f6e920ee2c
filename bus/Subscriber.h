#pragma once
#include <functional>
#include <memory>

#include "bus/Message.h"

namespace vlmProd {

/// The function that receives a subscriber's messages. Set it before subscribing. It is called on delivery
/// threads, possibly concurrently.
class EventSubscriberCallback {
  public:
    /// Replaces any earlier function.
    void setOnEventCallback(std::function<void(Message)> callback);
    /// Calls the function with a copy of the message. Throws std::bad_function_call when none was set.
    void executeOnEventCallback(Message message);

  private:
    std::function<void(Message)> m_callback;
};

/// One receiver of messages. The bus calls sendMessage() on a separate thread per message, so that nobody
/// waits for a slow subscriber.
class ISubscriber {
  public:
    virtual ~ISubscriber() = default;
    virtual void setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback> callback) = 0;
    virtual void addSubscriber(Message::MessageTopicType topic) = 0;
    virtual void unSubscribe(Message::MessageTopicType topic) = 0;
    virtual void subscribeForOnEventCallback() = 0;
    virtual void sendMessage(Message& message) = 0;
};

/// Must be owned by a std::shared_ptr: otherwise addSubscriber() throws std::bad_weak_ptr. From then on the
/// bus shares ownership.
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

/// The subscriber for use outside bus/. First call setEventSubscriberCallback() with a callback whose
/// function is set, then addSubscriber().
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
