#pragma once
#include <functional>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// Receives the collector configurations from the backend link, and decides when to request one. Shared by
/// the link and the timer of its requests.
class ConfigurationReceiver {
  public:
    virtual ~ConfigurationReceiver() = default;

    /// Sets what issues one request; an empty function ends the requests. Any thread.
    virtual void setRequestFunction(std::function<void()> request) = 0;
    /// Repeats the request until an answer has come. Only the first call has an effect.
    virtual void startConfigRequestRetry() = 0;
    virtual void stopConfigRequestRetry() = 0;
    /// Handles one answer of the backend, on the backend client's thread. Reports the outcome to the function
    /// of setOutcomeFunction().
    virtual void ConfigResponseCallback(kyo::Json::Value response) = 0;

    /// Called with the record's identifier, whether its configuration runs, and the reason if it does not.
    using OutcomeFunction =
        std::function<void(const std::string& recordId, bool isAccepted, const std::string& reason)>;
    /// Before the first answer.
    virtual void setOutcomeFunction(OutcomeFunction outcome) = 0;
};

}  // namespace vlmProd
