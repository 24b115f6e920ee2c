#pragma once
#include <memory>
#include <string>

#include "bus/OnEventGenerator.h"

namespace vlmProd {

/// Owns the clock of the current configuration.
class EventControl {
  public:
    EventControl() = default;
    virtual ~EventControl();
    EventControl(const EventControl&) = delete;
    EventControl& operator=(const EventControl&) = delete;

    /// Starts a clock that ticks every `duration` milliseconds, the first time one duration from now. A
    /// clock that was started before ends without a further tick. Called from one thread at a time.
    void initializeOnEventGenerator(std::string clockName, long long duration);

  private:
    std::shared_ptr<OnEventGenerator> m_generator;
};

}  // namespace vlmProd
