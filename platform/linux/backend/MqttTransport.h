#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "backend/Compression.h"
#include "backend/MqttConnection.h"
#include "backend/Remembered.h"
#include "backend/Spool.h"
#include "backend/SpoolFile.h"
#include "backend/Transport.h"
#include "machine/Manifest.h"

namespace kyo::orx {

/// The backend behind an MQTT broker; docs/mqtt.md describes topics and payloads.
///
/// An envelope that the broker took but could not give on (no backend listens) counts as not delivered: the
/// client then repeats the last master-control message with delivery result 1, so that the next opening
/// message, which a returning backend sends, has it sent again. One that the broker refuses for its size
/// can never be delivered: the client repeats an opening message, so that the next one takes its turn.
class MqttTransport : public Transport {
  public:
    /// What a spool between client and broker needs to hear; all on the network thread. Messages of the
    /// backend then go there and to no callback.
    struct Hooks {
        std::function<void(std::size_t receiveMaximum)> connected;
        std::function<void()> lost;
        std::function<void(const Json::Value&)> masterControl;
        std::function<void(Json::Value)> configuration;
        /// The broker answered an envelope of the spool: an MQTT 5 reason code.
        std::function<void(std::uint64_t number, int reason)> settled;
    };

    MqttTransport(const machine::BackendSettings& settings, Presence presence, Hooks hooks = {});
    ~MqttTransport() override;

    void start() override;
    /// 0 also while the broker is away. MqttConnection's codes otherwise, each logged with its cause.
    std::int32_t send(const Json::Value& envelope) override;
    std::int32_t requestConfiguration() override;
    /// Gives what waits a moment to go out, as MqttConnection::stop(). No hook is called afterwards.
    void leave() override;

    /// Sends an envelope of a spool on this connection, or not at all. MqttConnection's codes, not logged.
    std::int32_t sendSpooled(const SpooledEnvelope& envelope, std::string& error);
    /// False when the message before is not confirmed yet.
    bool publishHealth(const Json::Value& health);

  private:
    enum Kind : int { Status_, Request, Data, Spooled, Health };

    void publishPresence();
    void onMessage(const std::string& topic, const std::string& payload, bool retained);
    void onSettled(int kind, int reason);
    /// Repeats the last master-control message, if it was an opening one, with that delivery result; not if a
    /// newer one has come by then.
    void repeatOpening(int result, std::chrono::milliseconds delay);

    // Set once.
    const Presence m_presence;
    const std::string m_prefix;
    const machine::MessageLimits m_limits;
    const Hooks m_hooks;

    std::mutex m_compressorMutex;
    const std::unique_ptr<Compressor> m_compressor;  ///< guarded by m_compressorMutex; none: plain text

    std::mutex m_mutex;            ///< guards what follows
    Json::Value m_lastControl;     ///< the last master-control message
    std::uint64_t m_controls = 0;  ///< how many have come
    RememberedConfiguration m_lastConfiguration{{}, Spool::ordinaryDisk(), std::nullopt};
    std::chrono::milliseconds m_patience;  ///< before the next opening after a refused size

    std::once_flag m_left;
    MqttConnection m_connection;  ///< last: its thread uses all of the above
};

/// `settings.prefix`, or "vlm/<host name>".
std::string topicPrefix(const machine::MqttBackend& settings);

/// The payload of the status topic.
Json::Value presenceMessage(const Presence& presence, const char* state);

}  // namespace kyo::orx
