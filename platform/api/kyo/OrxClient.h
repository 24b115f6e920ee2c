#pragma once
/// The platform's backend data-exchange client. The transport is the platform's choice.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace kyo {

/// One connection to the backend.
///
/// The client calls both callbacks on one thread of its own, one at a time, never from inside one of its
/// operations. After a reconnect the backend sends an opening master-control message.
class OrxClient {
  public:
    using JsonCallback = std::function<void(Json::Value)>;

    /// Prepares the client; nothing is sent before start(). The client announces `serverName` and
    /// `offeredDataTypes` to the backend as its presence.
    OrxClient(std::string serverName, std::vector<std::string> offeredDataTypes);
    /// Stops the callback thread and waits a limited time for it.
    ~OrxClient();
    OrxClient(const OrxClient&) = delete;
    OrxClient& operator=(const OrxClient&) = delete;

    /// Register before start().
    void registerMasterControlCallback(JsonCallback callback);
    /// The callback gets an array of {"recordId": string, "recordBody": base64 text}. Register before
    /// start().
    void registerConfigResponseCallback(JsonCallback callback);

    /// Connects in the background; an unreachable backend is logged and retried. Does not block or throw.
    void start();

    /// Sends one envelope. 0: the client has accepted it and reports a delivery result later. Negative: it
    /// could not, and has logged why. May block for a flush to disk, never for the network.
    std::int32_t SendOrxData(const Json::Value& envelope);

    /// Requests the collector configuration from the backend; the answer comes by callback. 0: the request is
    /// sent, now or at the next connection. Negative: it could not, and has logged why. Any thread; does not
    /// block on the network.
    std::int32_t RequestConfiguration();

    /// Reports whether the application runs a configuration that came by callback, and why not. The platform
    /// may keep an accepted one for a start without the backend. May be called from inside the callback;
    /// blocks for a flush to disk at most.
    void ConfigurationAccepted(const std::string& recordId, bool isAccepted, const std::string& reason);

  private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

}  // namespace kyo
