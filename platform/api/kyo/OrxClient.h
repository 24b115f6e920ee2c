#pragma once
/// The platform's backend data-exchange client. What carries it is the platform's choice.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace kyo {

/// One connection to the backend.
///
/// Both callbacks come on one thread of the client's own, one at a time, and never from inside a call of
/// the client's operations. After a recovery the backend side sends an
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

    /// Connects in the background. A backend that cannot be reached is logged and tried again.
    /// Does not block and does not throw.
    void start();

    /// Sends one envelope. 0: the client took it over and answers with a delivery result later. Negative: it
    /// could not, and has logged why. Blocks for a flush to disk at most, never for the network.
    std::int32_t SendOrxData(const Json::Value& envelope);

    /// Asks the backend for the collection configuration; the answer comes by callback.
    std::int32_t RequestConfiguration();

  private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

}  // namespace kyo
