#pragma once
/// The platform's backend data-exchange client. Which transport carries it is the machine manifest's choice.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace kyo::orx {
class Transport;
}

namespace kyo {

/// One connection to the backend.
///
/// Both callbacks come on one thread of the client's own, one at a time, and never from inside a call of
/// the client's operations. After a recovery (broker back, disk writable again) the backend side sends an
/// opening master-control message.
class OrxClient {
  public:
    using JsonCallback = std::function<void(Json::Value)>;

    /// Prepares the client; nothing is sent before start(). `serverName` and `offeredDataTypes` are what
    /// the client announces to the backend as its presence.
    OrxClient(std::string serverName, std::vector<std::string> offeredDataTypes);
    /// Stops the callback thread, waiting a bounded time.
    ~OrxClient();
    OrxClient(const OrxClient&) = delete;
    OrxClient& operator=(const OrxClient&) = delete;

    /// Register before start().
    void registerMasterControlCallback(JsonCallback callback);
    /// The callback gets an array of {"recordId": string, "recordBody": base64 text}.
    void registerConfigResponseCallback(JsonCallback callback);

    /// Connects in the background. A broker or folder that cannot be reached is logged and tried again.
    /// Does not block and does not throw.
    void start();

    /// Sends one envelope. 0 when the transport took it over; a negative code when it could not (each is
    /// logged with its reason). Blocks for at most a file flush.
    std::int32_t SendOrxData(const Json::Value& envelope);

    /// Asks the backend for the collection configuration; the answer comes by callback.
    std::int32_t RequestConfiguration();

  private:
    std::unique_ptr<orx::Transport> m_transport;
};

}  // namespace kyo
