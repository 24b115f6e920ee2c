#pragma once
#include <cstdint>
#include <mutex>
#include <string>

#include "backend/MqttConnection.h"
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
    MqttTransport(machine::MqttBackend settings, Presence presence);
    ~MqttTransport() override;

    void start() override;
    /// 0 also while the broker is away. MqttConnection's codes otherwise, each logged with its cause.
    std::int32_t send(const Json::Value& envelope) override;
    std::int32_t requestConfiguration() override;

  private:
    enum Kind : int { Status_, Request, Data };

    void onConnected();
    void onMessage(const std::string& topic, const std::string& payload, bool retained);
    void onSettled(int kind, int reason);
    /// Repeats the last master-control message, if it was an opening one, with that delivery result.
    void repeatOpening(int result, std::chrono::milliseconds delay);

    // Set once.
    const Presence m_presence;
    const std::string m_prefix;

    std::mutex m_mutex;                    ///< guards what follows
    Json::Value m_lastControl;             ///< the last master-control message
    std::chrono::milliseconds m_patience;  ///< before the next opening after a refused size

    MqttConnection m_connection;  ///< last: its thread uses all of the above
};

/// `settings.prefix`, or "vlm/<host name>".
std::string topicPrefix(const machine::MqttBackend& settings);

/// The payload of the status topic.
Json::Value presenceMessage(const Presence& presence, const char* state);

}  // namespace kyo::orx
