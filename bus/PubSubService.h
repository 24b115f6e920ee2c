#pragma once
#include <atomic>
#include <map>
#include <memory>
#include <set>

#include "base/ConcurrentQueue.h"
#include "bus/Message.h"
#include "bus/Subscriber.h"
#include "kyo/Mutex.h"
#include "kyo/Thread.h"
#include "kyo/ThreadCondition.h"

namespace vlmProd {

/// The message bus of the process. Its thread takes messages in order and hands each one to every subscriber
/// of the topic, each on a detached thread of its own.
///
/// The base setup calls start() once; the thread then runs, mostly asleep, for the life of the process.
/// Subscribers may be added while messages flow. A message published while the bus thread is just about to
/// sleep is delivered with the next one.
class PubSubService : public kyo::Thread {
  public:
    /// Created on first use and never destroyed: its thread waits on the condition until the process ends.
    static PubSubService& getInstance();

    PubSubService();
    ~PubSubService() override;

    void run() override;

    /// Queues a copy of the message and wakes the bus thread. Never blocks for long; a message whose queue
    /// could not be locked in ten tries is lost and counted.
    void addMessageToQueue(Message& message);
    void addSubscriber(Message::MessageTopicType topic, std::shared_ptr<ISubscriber> subscriber);
    void removeSubscriber(Message::MessageTopicType topic, std::shared_ptr<ISubscriber> subscriber);
    /// Wakes the bus thread.
    void awakeThread();
    /// Ends the bus thread at its next check; does not wake it.
    void stopThread();
    void releasePubSubService();

    /// Starts the delivery of one message to the subscribers of its topic.
    void processMessage(Message& message);
    /// Processes what is queued now: one round of the bus thread. False when the stop flag ended it.
    bool drainOnce();
    /// The sum of the weights of the queued messages.
    unsigned int queued() { return m_messages.size(); }
    bool isRunning() const { return m_running; }

  private:
    using Subscribers = std::set<std::shared_ptr<ISubscriber>>;

    kyo::Mutex m_mutex;  ///< for sleeping and waking only
    kyo::ThreadCondition m_condition;
    ConcurrentQueue<Message> m_messages;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_running{false};

    kyo::Mutex m_tableMutex;
    std::map<Message::MessageTopicType, Subscribers> m_subscribers;  ///< guarded by m_tableMutex
};

}  // namespace vlmProd
