#include "bus/PubSubService.h"

#include <mutex>
#include <system_error>
#include <utility>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

constexpr unsigned int kMessageWeight = 32;

}  // namespace

PubSubService& PubSubService::getInstance() {
    // Never destroyed: a condition must not be destroyed while a thread waits on it.
    static auto* const instance = new PubSubService;
    return *instance;
}

PubSubService::PubSubService() : m_messages(&kyo::Status::counter("queue.bus.dropped")) {}

void PubSubService::addMessageToQueue(Message& message) {
    m_messages.put(message, kMessageWeight);
    wake();
}

void PubSubService::addSubscriber(Message::MessageTopicType topic, std::shared_ptr<ISubscriber> subscriber) {
    const std::lock_guard<kyo::Mutex> lock(m_tableMutex);
    if (const auto entry = m_subscribers.find(topic); entry != m_subscribers.end()) {
        entry->second.insert(std::move(subscriber));
        VLM_LOG(5, "Added new sub in existing type: " << topic);
    } else {
        m_subscribers[topic].insert(std::move(subscriber));
        VLM_LOG(5, "Inserted new sub for type: " << topic);
    }
}

void PubSubService::removeSubscriber(Message::MessageTopicType topic,
                                     std::shared_ptr<ISubscriber> subscriber) {
    const std::lock_guard<kyo::Mutex> lock(m_tableMutex);
    if (const auto entry = m_subscribers.find(topic); entry != m_subscribers.end()) {
        // The entry stays, even if empty: then messages of the topic are ignored without a log line.
        entry->second.erase(subscriber);
        VLM_LOG(5, "Removed sub for type: " << topic);
    } else {
        VLM_LOG(5, "No sub found for type: " << topic);
    }
}

void PubSubService::awakeThread() {
    const SleepLock lock = lockSleep();
    VLM_LOG(5, "Waking up the pubsub service thread");
    broadcast();
}

void PubSubService::stopThread() {
    m_stop = true;
}

void PubSubService::releasePubSubService() {
    VLM_TRACE(7);
}

void PubSubService::run() {
    VLM_LOG(6, "Started PubSubService consumer");
    detach();
    const Running running(*this);
    while (!m_stop && drainOnce()) {
        const SleepLock lock = lockSleep();
        VLM_LOG(5, "Going to wait mode in vlm pubsub service thread. There is no messages to process");
        sleepUntilWoken();
        VLM_LOG(5, "VLM Pubsub service thread has awaken up to process message");
    }
}

bool PubSubService::drainOnce() {
    Message message;
    while (m_messages.take(&message)) {
        VLM_LOG(6, "Read from PubSubService Q");
        processMessage(message);
        if (m_stop) {
            return false;
        }
    }
    return true;
}

void PubSubService::processMessage(Message& message) {
    Subscribers receivers;
    {
        const std::lock_guard<kyo::Mutex> lock(m_tableMutex);
        const auto entry = m_subscribers.find(message.getTopic());
        if (entry == m_subscribers.end()) {
            VLM_LOG(4, "No subscriber for msg:" << message.getTopic());
            return;
        }
        // A copy, since subscribers may be added during the delivery.
        receivers = entry->second;
    }
    for (const auto& receiver : receivers) {
        try {
            startDetached([receiver, copy = message]() mutable { receiver->sendMessage(copy); });
        } catch (const std::system_error& error) {
            static auto& failed = kyo::Status::counter("threads.failed");
            failed.add();
            VLM_LOG(3, "No thread for the delivery of a message, one subscriber misses it: " << error.what());
        }
    }
}

}  // namespace vlmProd
