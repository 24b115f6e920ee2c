#include "collect/Collector.h"

#include <utility>

#include "base/VlmLog.h"

namespace vlmProd {

namespace {

constexpr const char* kInsertRecord = "virtual void vlmProd::Collector::insertRecord(kyo::Json::Value&)";
constexpr const char* kOnOnEventCallback =
    "virtual void vlmProd::Collector::onOnEventCallback(vlmProd::Message)";

}  // namespace

Collector::Collector(const std::string& name, long long historyDuration, std::string serviceName,
                     std::string resourceName, int index, std::string onEventName, CollectorOnEventType type)
    : m_impl(std::make_shared<CollectorImpl>(name, historyDuration, std::move(serviceName),
                                             std::move(resourceName), index, std::move(onEventName), type)),
      m_subscriber(std::make_shared<EventSubscriber>()),
      m_callback(std::make_shared<EventSubscriberCallback>()) {
    m_impl->setState(ICollector::History);
    subForOnEvent();
}

void Collector::onOnEventCallback(Message message) {
    tick(*m_impl, std::move(message));
}

void Collector::tick(CollectorImpl& impl, Message message) {
    VLM_LOG_AS(5, kOnOnEventCallback, "onOnEventCallback");
    VLM_LOG_AS(5, kOnOnEventCallback, "COLLECTOR NAME = " << impl.getName());
    impl.onOnEventCallback(std::move(message));
}

void Collector::insertRecord(Record record) {
    VLM_LOG_AS(5, kInsertRecord, "Inserting record into collector object");
    m_impl->insertRecord(std::move(record));
}

void Collector::setHistoryDuration(long long duration) {
    VLM_LOG(5, "History duration = " << duration);
    m_impl->setHistoryDuration(duration);
}

void Collector::subForOnEvent() {
    // The delivery threads are detached: they reach the state machine only while somebody owns it.
    m_callback->setOnEventCallback([weak = std::weak_ptr<CollectorImpl>(m_impl)](Message message) {
        if (const auto impl = weak.lock()) {
            tick(*impl, std::move(message));
        }
    });
    m_subscriber->setEventSubscriberCallback(m_callback);
    m_subscriber->addSubscriber(Message::OnEvent);
}

}  // namespace vlmProd
