#pragma once
/// A connection to an MQTT broker that is kept up: libmosquitto with a network thread of its own.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "machine/Manifest.h"

namespace kyo::orx {

/// Publishes and subscribes with QoS 1. Uses MQTT 5, which reports limits and refusals; a broker that does
/// not know it gets 3.1.1.
///
/// A lost connection is opened again after a pause that doubles from reconnectMinSeconds to
/// reconnectMaxSeconds, and begins with the shortest again after a connection that lasted for
/// reconnectMaxSeconds. Each change of the connection is logged once. Sessions are clean: the broker keeps
/// nothing for us while we are away; what is published meanwhile is kept here and sent.
class MqttConnection {
  public:
    /// What a published message was, for settled().
    using Kind = int;

    /// All called on the network thread; none after stop() returned. They must not block, and may publish.
    struct Handlers {
        /// The connection is established and the subscriptions are requested.
        std::function<void()> connected;
        /// A message's Form is part of the topic here, with MQTT 5 as with 3.1.1.
        std::function<void(const std::string& topic, std::string payload, bool retained)> message;
        /// The broker answered a published message: an MQTT 5 reason code, see taken().
        std::function<void(Kind kind, int reason)> settled;
        /// A line for the log: level 3 for troubles, 5 for progress.
        std::function<void(int level, const std::string& text)> say;
        /// As settled(), for a message that was for one connection only.
        std::function<void(std::uint64_t tag, int reason)> settledOnce = {};
        /// The connection is gone, and with it the messages that were for it only.
        std::function<void()> lost = {};
        /// The broker has answered all subscriptions: messages that are published from now on arrive. Called
        /// again when a subscription that it has refused succeeds later.
        std::function<void()> subscribed = {};
    };

    /// What a message is. With MQTT 5 its properties say so, with 3.1.1 the topic:
    /// <topic>/<encoding>/<number>.
    struct Form {
        std::string contentType;
        std::string encoding;             ///< empty: not sent
        std::string spoolNumber;          ///< empty: none
        bool isForOneConnection = false;  ///< not kept for the next one; settledOnce() gets the tag
        std::uint64_t tag = 0;
    };

    struct Will {
        std::string topic;
        std::string payload;  ///< published retained, by the broker, when the connection is lost
    };

    /// Limits of the published messages that the broker has not confirmed.
    static constexpr std::size_t kMaxUnconfirmed = 100;
    static constexpr std::size_t kMaxUnconfirmedBytes = 64u << 20;

    /// Results of publish() below 0: the message went nowhere.
    static constexpr std::int32_t kTooLarge = -1001;   ///< beyond what the broker takes
    static constexpr std::int32_t kQueueFull = -1002;  ///< too much is unconfirmed already
    static constexpr std::int32_t kFailed = -1003;     ///< libmosquitto refused it
    static constexpr std::int32_t kNotConnected = -1004;
    static constexpr std::int32_t kClosed = -1005;  ///< after stop()

    /// `will` may have an empty topic: none. A message of more than `largestMessage` bytes is refused and
    /// counted in "orx.refused", and an MQTT 5 broker is asked to send none; 0: no limit. Nothing happens
    /// before start().
    MqttConnection(machine::MqttBackend settings, std::string clientId,
                   std::vector<std::string> subscriptions, Will will, Handlers handlers,
                   std::size_t largestMessage = 0);
    /// As stop().
    ~MqttConnection();
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    void start();

    /// Gives published messages a moment to leave, disconnects in order, so that the broker does not publish
    /// the will, and ends the network thread. Takes two seconds at most: a thread that hangs in the system's
    /// connect is left behind.
    void stop();

    /// 0 when the message was sent or is kept for the broker's return. `error` gets the cause otherwise.
    /// Any thread; does not block on the network.
    std::int32_t publish(const std::string& topic, const std::string& payload, bool retain, Kind kind,
                         std::string& error) {
        return publish(topic, payload, retain, kind, error, {});
    }
    /// kNotConnected only for a message that is for one connection.
    std::int32_t publish(const std::string& topic, const std::string& payload, bool retain, Kind kind,
                         std::string& error, Form form);

    /// How many messages the broker takes before it has confirmed the first. Of the last connection.
    std::size_t receiveMaximum() const;

    /// How many messages of that kind wait for the broker's confirmation.
    std::size_t unconfirmed(Kind kind) const;

    /// Whether a reason given to settled() means that somebody got the message.
    static bool taken(int reason);

  private:
    struct State;
    const std::shared_ptr<State> m_state;  ///< shared with the network thread, which may be left behind
};

}  // namespace kyo::orx
