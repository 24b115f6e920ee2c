#pragma once
#include <cstdint>

#include "bus/Message.h"
#include "kyo/Json.h"

namespace vlmProd {

/// Keeps the records of one collect clause until the next tick of the clock.
class ICollector {
  public:
    enum State : std::int32_t {
        History = 0,     ///< records go into the next signal collection
        Lag = 1,         ///< records wait
        Reportable = 2,  ///< during a tick: records wait
    };

    virtual ~ICollector() = default;
    /// Handles a tick: the records become a signal collection. Called on a delivery thread of the bus.
    virtual void onOnEventCallback(Message message) = 0;
    /// Copies the record. Any thread may call it, also concurrently.
    virtual void insertRecord(kyo::Json::Value& record) = 0;
    /// `duration` is in milliseconds.
    virtual void setHistoryDuration(long long duration) = 0;
};

}  // namespace vlmProd
