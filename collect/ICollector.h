#pragma once
#include <cstdint>

#include "bus/Message.h"
#include "kyo/Json.h"

namespace vlmProd {

/// What holds the records of one collect clause between two ticks of the clock.
class ICollector {
  public:
    enum State : std::int32_t {
        History = 0,     ///< records pass on to the next signal collection
        Lag = 1,         ///< records wait
        Reportable = 2,  ///< a tick is under way: records wait
    };

    virtual ~ICollector() = default;
    /// One tick: what is held becomes a signal collection. Called on a delivery thread of the bus.
    virtual void onOnEventCallback(Message message) = 0;
    /// Takes a copy of the record. Called on any thread, several at once.
    virtual void insertRecord(kyo::Json::Value& record) = 0;
    /// In milliseconds.
    virtual void setHistoryDuration(long long duration) = 0;
};

}  // namespace vlmProd
