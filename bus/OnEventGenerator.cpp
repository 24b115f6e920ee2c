#include "bus/OnEventGenerator.h"

#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

OnEventGenerator::OnEventGenerator(std::string& clockName)
    : m_publisher(std::make_shared<EventPublisher>()),
      m_timer(std::make_shared<Timer>()),
      m_clockName(clockName) {
    VLM_LOG(5, "ZEPH-43022: VLM implements a timer object");
}

OnEventGenerator::~OnEventGenerator() {
    stopTimer();
}

void OnEventGenerator::startOnEventGenerator() {
    VLM_TRACE(7);
    const auto interval = static_cast<int>(m_duration);
    m_timer->setInterval(
        [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->generateOnEvent();
            }
        },
        interval);
    kyo::Status::gauge("clock.durationMs", [interval] { return kyo::Json::Value(interval); });
    kyo::Status::gauge("clock.nextTickMs", [timer = m_timer] {
        return kyo::Json::Value(static_cast<kyo::Json::Int64>(timer->millisecondsToNextTick()));
    });
}

void OnEventGenerator::generateOnEvent() {
    VLM_TRACE(7);
    Message message;
    message.setTopic(Message::OnEvent);
    m_publisher->publishMessage(message);
    static auto& ticks = kyo::Status::counter("clock.ticks");
    ticks.add();
}

void OnEventGenerator::stopTimer() {
    m_timer->stopTimer();
}

}  // namespace vlmProd
