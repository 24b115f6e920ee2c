#pragma once
#include <map>
#include <memory>
#include <set>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"
#include "bus/Message.h"
#include "bus/Subscriber.h"
#include "kyo/Mutex.h"

namespace vlmProd {

/// The message bus of the process. Its thread delivers messages in order, to each subscriber of the topic on
/// a detached thread of its own.
///
/// The base setup calls start() once; the thread runs until the process ends. Subscribers may be added at any
/// time. A message published just before the bus thread sleeps is delivered with the next one.
class PubSubService : public Worker {
  public:
    /// Created on first use and never destroyed: its thread waits on the condition until the process ends.
    static PubSubService& getInstance();

    PubSubService();

    void run() override;

    /// Queues a copy of the message and wakes the bus thread. Never blocks for long; drops and counts the
    /// message when ten tries cannot lock the queue.
    void addMessageToQueue(Message& message);
    void addSubscriber(Message::MessageTopicType topic, std::shared_ptr<ISubscriber> subscriber);
    void removeSubscriber(Message::MessageTopicType topic, std::shared_ptr<ISubscriber> subscriber);
    /// Wakes the bus thread.
    void awakeThread();
    /// Ends the bus thread at its next check of the flag; does not wake it.
    void stopThread();
    void releasePubSubService();

    /// Starts the delivery of one message to all subscribers of its topic.
    void processMessage(Message& message);
    /// Processes the queued messages. Returns false when the stop flag ended it.
    bool drainOnce() override;
    /// The sum of the weights of the queued messages.
    unsigned int queued() { return m_messages.size(); }

  private:
    using Subscribers = std::set<std::shared_ptr<ISubscriber>>;

    ConcurrentQueue<Message> m_messages;
    kyo::Mutex m_tableMutex;
    std::map<Message::MessageTopicType, Subscribers> m_subscribers;  ///< guarded by m_tableMutex
};

}  // namespace vlmProd
