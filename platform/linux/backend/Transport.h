#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kyo/Json.h"
#include "thread/CallbackThread.h"

namespace kyo::orx {

/// What the client announces of itself.
struct Presence {
    std::string serverName;
    std::vector<std::string> offeredDataTypes;
};

/// What is permitted where the vehicle offered no data type of its own.
inline constexpr const char* kDefaultDataType = "VLMReport";

/// A whole master-control message. Each one replaces all that the vehicle knew, so none is ever partial.
Json::Value masterControl(const std::string& ticket, const std::vector<std::string>& permitted, int control,
                          int result);

/// One way to the backend. Callbacks come on m_callbacks' thread, never from inside a call.
class Transport {
  public:
    using JsonCallback = std::function<void(Json::Value)>;

    virtual ~Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    /// Both before start().
    void setMasterControlCallback(JsonCallback callback) { m_onMasterControl = std::move(callback); }
    void setConfigResponseCallback(JsonCallback callback) { m_onConfigResponse = std::move(callback); }

    virtual void start() = 0;
    virtual std::int32_t send(const Json::Value& envelope) = 0;
    virtual std::int32_t requestConfiguration() = 0;
    /// For the end of the process, whose threads may still call the above: takes no further envelope, and
    /// logs how many of those that it took are lost with the process.
    virtual void leave() = 0;
    /// What the application made of a configuration that was passed on.
    virtual void configurationAccepted(const std::string& /*recordId*/, bool /*isAccepted*/,
                                       const std::string& /*reason*/) {}

  protected:
    Transport() = default;

    /// A message of the backend: dropped and counted when too many wait.
    void deliverMasterControl(Json::Value message);
    /// One that the client composes, and that is never dropped. After `delay`, `isValid` says on the callback
    /// thread whether it is still to be delivered.
    void deliverOwnMasterControl(Json::Value message, std::chrono::milliseconds delay = {},
                                 std::function<bool()> isValid = nullptr);
    /// Dropped and counted, too, when several wait, as an answer may be large: false then.
    bool deliverConfigResponse(Json::Value answer);

    /// A derived class stops it first in its destructor, as posted work uses the derived object.
    CallbackThread m_callbacks;

  private:
    std::atomic<int> m_answersWaiting{0};

    // Set once, before start().
    JsonCallback m_onMasterControl;
    JsonCallback m_onConfigResponse;
};

}  // namespace kyo::orx
