#include "bus/EventControl.h"

#include "base/VlmLog.h"

namespace vlmProd {

EventControl::~EventControl() {
    if (m_generator) {
        m_generator->stopTimer();
    }
}

void EventControl::initializeOnEventGenerator(std::string clockName, long long duration) {
    if (m_generator) {
        // The timer's thread may share the old generator during a running tick.
        m_generator->stopTimer();
    }
    m_generator = std::make_shared<OnEventGenerator>(clockName);
    m_generator->setDuration(duration);
    m_generator->startOnEventGenerator();
    VLM_TRACE(7);
}

}  // namespace vlmProd
