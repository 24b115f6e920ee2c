#include "backend/MqttTransport.h"

#include <mqtt_protocol.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "json/TextLimits.h"
#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

// More than any message of a backend needs. What a configuration answer contains is one text here.
constexpr std::size_t kMostLevels = 32;
constexpr std::size_t kMostValues = 1000;

constexpr std::chrono::milliseconds kFirstPatience{200};
constexpr std::chrono::milliseconds kLongestPatience{600000};

/// One session per vehicle: a restarted process takes its predecessor's session over, and the broker then
/// publishes the predecessor's will before, not after, the new presence.
std::string clientIdOf(const std::string& prefix) {
    std::string id = "vlmmaster-" + prefix;
    std::replace(id.begin(), id.end(), '/', '-');
    return id;
}

/// How a message with an envelope says what it is.
MqttConnection::Form formOf(Encoding encoding, std::string_view payload) {
    MqttConnection::Form form;
    form.contentType = encoding == Encoding::Zstd ? "application/zstd" : "application/json";
    form.encoding = nameOf(encoding, payload);
    return form;
}

void logLine(int level, const std::string& text) {
    KYO_LOG(level, text);
}

}  // namespace

std::string topicPrefix(const machine::MqttBackend& settings) {
    if (!settings.prefix.empty()) {
        return settings.prefix;
    }
    char host[256] = "localhost";
    ::gethostname(host, sizeof host - 1);
    return std::string("vlm/") + host;
}

Json::Value presenceMessage(const Presence& presence, const char* state) {
    Json::Value message(Json::objectValue);
    message["state"] = state;
    message["serverName"] = presence.serverName;
    Json::Value& types = message["offeredDataTypes"] = Json::Value(Json::arrayValue);
    for (const std::string& type : presence.offeredDataTypes) {
        types.append(type);
    }
    return message;
}

MqttTransport::MqttTransport(const machine::BackendSettings& settings, Presence presence, Hooks hooks)
    : m_presence(std::move(presence)),
      m_prefix(topicPrefix(settings.mqtt)),
      m_limits(settings.limits),
      m_hooks(std::move(hooks)),
      m_compressor(settings.spool ? nullptr : makeCompressor(settings.compression)),
      m_patience(kFirstPatience),
      m_connection(settings.mqtt, clientIdOf(m_prefix),
                   {m_prefix + "/mastercontrol", m_prefix + "/config/response"},
                   {m_prefix + "/status", Json::FastWriter().write(presenceMessage(m_presence, "offline"))},
                   {[this] {
                        if (m_hooks.connected) {
                            m_hooks.connected(m_connection.receiveMaximum());
                        }
                    },
                    [this](const std::string& topic, const std::string& payload, bool retained) {
                        onMessage(topic, payload, retained);
                    },
                    [this](int kind, int reason) { onSettled(kind, reason); }, logLine,
                    [this](std::uint64_t number, int reason) {
                        if (number != 0 && m_hooks.settled) {
                            m_hooks.settled(number, reason);
                        }
                    },
                    m_hooks.lost, [this] { publishPresence(); }},
                   std::max(m_limits.masterControlBytes, m_limits.configurationBytes)) {}

MqttTransport::~MqttTransport() {
    MqttTransport::leave();
    m_callbacks.stop();
}

void MqttTransport::leave() {
    std::call_once(m_left, [this] {
        std::string error;
        m_connection.publish(m_prefix + "/status",
                             Json::FastWriter().write(presenceMessage(m_presence, "offline")), true, Status_,
                             error);
        m_connection.stop();
        if (const std::size_t lost = m_connection.unconfirmed(Data); lost > 0) {
            KYO_LOG(3, lost << " envelopes are lost with the process, as the broker has not confirmed them");
        }
    });
}

void MqttTransport::start() {
    KYO_LOG(5, "The backend is behind the topics " << m_prefix << "/...");
    m_connection.start();
}

std::int32_t MqttTransport::send(const Json::Value& envelope) {
    static Counter& sent = Status::counter("orx.sent");
    static Counter& failed = Status::counter("orx.failed");
    std::string error;
    std::string payload = Json::FastWriter().write(envelope);
    MqttConnection::Form form;
    if (m_compressor) {
        const std::lock_guard<std::mutex> lock(m_compressorMutex);
        if (std::string compressed = m_compressor->compress(payload); !compressed.empty()) {
            payload = std::move(compressed);
            form = formOf(Encoding::Zstd, payload);
        }
    }
    const std::int32_t result =
        m_connection.publish(m_prefix + "/data", payload, false, Data, error, std::move(form));
    if (result == 0) {
        sent.add();
        return 0;
    }
    failed.add();
    KYO_LOG(3, "An envelope cannot be sent: " << error);
    if (result == MqttConnection::kTooLarge) {
        // No recovery will bring an opening message for this one, so it is made here; with a growing pause,
        // as what is sent again may be too large as well.
        std::chrono::milliseconds delay{};
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            delay = m_patience;
            m_patience = std::min(kLongestPatience, m_patience * 2);
        }
        repeatOpening(0, delay);
    }
    return result;
}

std::int32_t MqttTransport::requestConfiguration() {
    Json::Value request(Json::objectValue);
    request["serverName"] = m_presence.serverName;
    std::string error;
    const std::int32_t result = m_connection.publish(
        m_prefix + "/config/request", Json::FastWriter().write(request), false, Request, error);
    if (result != 0) {
        KYO_LOG(3, "A configuration request cannot be sent: " << error);
    }
    return result;
}

std::int32_t MqttTransport::sendSpooled(const SpooledEnvelope& envelope, std::string& error) {
    MqttConnection::Form form = formOf(envelope.encoding, envelope.payload);
    form.spoolNumber = std::to_string(envelope.number);
    form.isForOneConnection = true;
    form.tag = envelope.number;
    return m_connection.publish(m_prefix + "/data", envelope.payload, false, Spooled, error, std::move(form));
}

bool MqttTransport::publishHealth(const Json::Value& health) {
    std::string error;
    return m_connection.unconfirmed(Health) == 0 &&
           m_connection.publish(m_prefix + "/health", Json::FastWriter().write(health), true, Health,
                                error) == 0;
}

/// After the subscriptions: a backend answers it with an opening message, and in a cluster of brokers that
/// could otherwise be faster than they are.
void MqttTransport::publishPresence() {
    MqttConnection::Form form;
    form.isForOneConnection = true;
    std::string error;
    if (m_connection.publish(m_prefix + "/status",
                             Json::FastWriter().write(presenceMessage(m_presence, "online")), true, Status_,
                             error, std::move(form)) != 0) {
        KYO_LOG(3, "The presence cannot be published: " << error);
    }
}

void MqttTransport::onMessage(const std::string& topic, const std::string& payload, bool retained) {
    static Counter& ignored = Status::counter("orx.ignored");
    if (retained) {
        ignored.add();
        KYO_LOG(3, topic << ": ignored, as it was retained and so may be of another time");
        return;
    }
    const bool isControl = topic == m_prefix + "/mastercontrol";
    const std::size_t mostBytes = isControl ? m_limits.masterControlBytes : m_limits.configurationBytes;
    if (std::string fault; !vlmProd::isWithin({mostBytes, kMostLevels, kMostValues}, payload, fault)) {
        static Counter& refused = Status::counter("orx.refused");
        refused.add();
        KYO_LOG(3, topic << ": refused, " << fault);
        return;
    }
    Json::Reader reader;
    Json::Value content;
    if (!reader.parse(payload, content, false)) {
        ignored.add();
        KYO_LOG(3, topic << ": ignored, as it is not JSON: " << reader.getFormattedErrorMessages());
        return;
    }
    if (isControl) {
        if (m_hooks.masterControl) {
            m_hooks.masterControl(content);
            return;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);  // also so that no repetition of it overtakes it
        m_lastControl = content;
        ++m_controls;
        deliverMasterControl(std::move(content));
    } else if (topic != m_prefix + "/config/response") {
        ignored.add();
        KYO_LOG(3, topic << ": ignored, as nothing is expected there");
    } else if (m_hooks.configuration) {
        m_hooks.configuration(std::move(content));
    } else {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_lastConfiguration.isRepeated(content)) {
            KYO_LOG(5, topic << ": not passed on, as it says what the last one said");
        } else if (deliverConfigResponse(content)) {
            m_lastConfiguration.passedOn(std::move(content));
        }
    }
}

void MqttTransport::onSettled(int kind, int reason) {
    if (kind != Data) {
        return;
    }
    if (MqttConnection::taken(reason)) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_patience = kFirstPatience;
        return;
    }
    static Counter& givenUp = Status::counter("orx.givenUp");
    static Counter& undelivered = Status::counter("orx.undelivered");
    (reason == MQTT_RC_PACKET_TOO_LARGE ? givenUp : undelivered).add();
    if (reason == MQTT_RC_PACKET_TOO_LARGE) {
        KYO_LOG(3, "The broker refuses an envelope for its size; it is given up");
        repeatOpening(0, {});
    } else {
        KYO_LOG(3, "The broker could not deliver an envelope (reason "
                       << reason << (reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS ? ", no backend listens" : "")
                       << "); it waits for the backend's next opening message");
        repeatOpening(1, {});
    }
}

void MqttTransport::repeatOpening(int result, std::chrono::milliseconds delay) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Json::Value& last = m_lastControl;
    const auto isZero = [&last](const char* key) {
        return last[key].isNumeric() && last[key].asDouble() == 0.0;
    };
    if (!last.isObject() || !isZero("backendChannelControl") || !isZero("dataDeliveryResult")) {
        return;
    }
    Json::Value message = last;
    message["dataDeliveryResult"] = result;
    deliverOwnMasterControl(std::move(message), delay, [this, number = m_controls] {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return number == m_controls;
    });
}

}  // namespace kyo::orx
