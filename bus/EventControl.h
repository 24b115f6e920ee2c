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

    /// Starts a clock that ticks every `duration` milliseconds, first one duration from now. A previous clock
    /// ends without another tick. One thread at a time.
    void initializeOnEventGenerator(std::string clockName, long long duration);

  private:
    std::shared_ptr<OnEventGenerator> m_generator;
};

}  // namespace vlmProd
