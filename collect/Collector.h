#pragma once
#include <memory>
#include <string>

#include "bus/Subscriber.h"
#include "collect/CollectorImpl.h"
#include "collect/ICollector.h"

namespace vlmProd {

/// The collector of one collect clause, as the rest of the system uses it. It subscribes itself to the
/// clock's ticks and stays subscribed: it lives from the base setup to the end of the process. A tick for a
/// collector that a test has destroyed does nothing.
class Collector : public ICollector {
  public:
    Collector(const std::string& name, long long historyDuration, std::string serviceName,
              std::string resourceName, int index, std::string onEventName, CollectorOnEventType type);

    void onOnEventCallback(Message message) override;
    void insertRecord(kyo::Json::Value& record) override { insertRecord(Record(record)); }
    void insertRecord(Record record);
    void setHistoryDuration(long long duration) override;

    void subForOnEvent();
    void subForStartEvent() {}
    void subForStopEvent() {}
    void subForLagTick() {}
    void threadProcessor(kyo::Json::Value& /*record*/) {}

  private:
    static void tick(CollectorImpl& impl, Message message);

    const std::shared_ptr<CollectorImpl> m_impl;
    const std::shared_ptr<EventSubscriber> m_subscriber;
    const std::shared_ptr<EventSubscriberCallback> m_callback;
};

}  // namespace vlmProd
