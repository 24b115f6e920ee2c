#include "backend/MqttConnection.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <system_error>
#include <thread>
#include <utility>

#include "backend/TlsContext.h"
#include "kyo/Status.h"
#include "kyo/WakeFd.h"

namespace kyo::orx {

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kQos = 1;
constexpr milliseconds kStopLimit{2000};
constexpr milliseconds kDrainLimit{500};
constexpr std::size_t kPacketOverhead = 65'536;  // header, topic and properties beside a message
constexpr int kMostSuspicions = 10;  // ends of a 3.1.1 connection, until its largest message is given up
constexpr int kPollMs = 500;         // how late the library's own time-outs may be seen

void initialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
        // The network thread may be at work while the process exits, so the TLS library must not free its
        // tables then.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        mosquitto_lib_init();
    });
}

/// A message from publish() until the broker confirms it. Kept here and not in the library, which aborts the
/// process when a returning broker takes only packets smaller than one that it kept.
struct Unconfirmed {
    std::string topic;
    std::string payload;
    bool retain;
    MqttConnection::Kind kind;
    int messageId;  ///< of the current connection; 0 before it was sent there
    MqttConnection::Form form;

    /// The largest that its packet can be: fixed header, lengths, identifier and properties beside the texts.
    std::size_t bytes() const {
        const std::size_t texts = form.encoding.size() + form.spoolNumber.size() + form.contentType.size();
        return topic.size() + payload.size() + 16 + (texts == 0 ? 0 : texts + 32);
    }
};

constexpr const char* kEncodingProperty = "encoding";
constexpr const char* kSpoolProperty = "spool";
constexpr std::size_t kLongestForm = 64;

/// What follows the topic of a message of that form with MQTT 3.1.1.
std::string suffixOf(const std::string& encoding, const std::string& spoolNumber) {
    return (encoding.empty() ? "" : '/' + encoding) + (spoolNumber.empty() ? "" : '/' + spoolNumber);
}

/// The same, from the properties of a message that came.
std::string suffixOf(const mosquitto_property* properties) {
    std::string encoding;
    std::string spoolNumber;
    char* name = nullptr;
    char* value = nullptr;
    bool isFurther = false;
    while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name,
                                                             &value, isFurther)) != nullptr) {
        if (name != nullptr && value != nullptr && std::strlen(value) <= kLongestForm) {
            if (std::strcmp(name, kEncodingProperty) == 0) {
                encoding = value;
            } else if (std::strcmp(name, kSpoolProperty) == 0) {
                spoolNumber = value;
            }
        }
        std::free(name);   // NOLINT(cppcoreguidelines-no-malloc): the library allocates them
        std::free(value);  // NOLINT(cppcoreguidelines-no-malloc)
        name = value = nullptr;
        isFurther = true;
    }
    return suffixOf(encoding, spoolNumber);
}

struct ClientDeleter {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, ClientDeleter>;

}  // namespace

struct MqttConnection::State {
    State(machine::MqttBackend s, std::string id, std::vector<std::string> topics, Will w, Handlers h,
          std::size_t largest)
        : settings(std::move(s)),
          brokers(machine::brokersOf(settings)),
          clientId(std::move(id)),
          subscriptions(std::move(topics)),
          will(std::move(w)),
          handlers(std::move(h)),
          largestMessage(largest) {}
    ~State() { client.reset(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // Network thread.
    void run();
    bool makeClient(std::string& error);
    void setCallbacks(mosquitto* raw);
    void onMessage(const mosquitto_message& message, const mosquitto_property* properties);
    int connectOnce();
    int serve();
    void waitBeforeReconnect();
    void logDown(const std::string& cause);
    void noteUnexplainedEnd();
    void giveUpLargest();
    void loseWhatWasForThisConnection();
    void sendUnconfirmed(std::size_t limit, std::uint16_t atOnce);
    void subscribe(const std::vector<std::string>& topics);
    int hand(Unconfirmed& message);
    void settle(const std::vector<Unconfirmed>& messages, int reason);
    std::string causeOf(int code, int systemError) const;

    // libmosquitto's callbacks, on the network thread.
    void onConnect(int reason, const mosquitto_property* properties);
    void onPublish(int messageId, int reason);
    void onSubscribed(int messageId, int reason);
    static State& of(void* object) { return *static_cast<State*>(object); }

    std::string broker() const { return brokers[chosen].host + ':' + std::to_string(brokers[chosen].port); }

    // Set once.
    const machine::MqttBackend settings;
    const std::vector<machine::BrokerAddress> brokers;  ///< at least one
    const std::string clientId;
    const std::vector<std::string> subscriptions;
    const Will will;
    const Handlers handlers;
    const std::size_t largestMessage;  ///< that the handler gets; 0: no limit
    const WakeFd wakeUp;               ///< something to send, or stopping

    mutable std::mutex mutex;
    // Guarded by the mutex; the client is replaced by the network thread only, which may use it without.
    std::unique_ptr<TlsContext> tls;  ///< of the client; none without TLS
    Client client;                    ///< one for each connection
    std::list<Unconfirmed> unconfirmed;
    std::size_t unconfirmedBytes = 0;
    std::size_t largestPacket = 0;  ///< the broker's limit; 0: none known
    std::size_t receiveMaximum = 1;
    bool connected = false;
    bool running = false;
    bool closed = false;  ///< stop() has returned: nothing more is taken
    std::condition_variable ended;

    std::atomic<bool> stopping{false};

    // Network thread only.
    bool everConnected = false;
    std::map<int, std::string> asked;  ///< topics whose subscription the broker has not answered
    std::vector<std::string> refusedTopics;
    SteadyClock::time_point subscribeAt{};  ///< then these are asked for again
    bool isNewlySubscribed = false;
    bool isRefusalLogged = false;  ///< on this connection
    bool tooLarge = false;         ///< the broker ended the connection because of a message's size
    std::size_t suspect = 0;       ///< size of the largest message when a 3.1.1 connection ended
    int suspicions = 0;            ///< how many ended so in a row
    bool confirmsOthers = false;   ///< the broker has confirmed a message on this connection
    int protocol = MQTT_PROTOCOL_V5;
    std::string libraryError;  ///< the library's own words about the last trouble
    std::string refusal;       ///< why the broker refused or ended the connection
    std::vector<std::string> loggedCauses =
        std::vector<std::string>(brokers.size());  ///< the last trouble of each that was logged
    std::chrono::seconds pause{0};
    std::size_t chosen = 0;                              ///< the broker that is tried
    std::size_t triedInRound = 0;                        ///< brokers that were tried with this pause
    std::optional<SteadyClock::time_point> connectedAt;  ///< of the connection that is or was the last
    std::minstd_rand jitter{std::random_device{}()};
};

MqttConnection::MqttConnection(machine::MqttBackend settings, std::string clientId,
                               std::vector<std::string> subscriptions, Will will, Handlers handlers,
                               std::size_t largestMessage)
    : m_state(std::make_shared<State>(std::move(settings), std::move(clientId), std::move(subscriptions),
                                      std::move(will), std::move(handlers), largestMessage)) {
    initialiseLibrary();
}

MqttConnection::~MqttConnection() {
    stop();
}

void MqttConnection::start() {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    if (m_state->running || m_state->stopping) {
        return;
    }
    try {
        std::thread([state = m_state] { state->run(); }).detach();
        m_state->running = true;
    } catch (const std::system_error& error) {
        m_state->handlers.say(3, std::string("no thread for the broker could be started: ") + error.what());
    }
}

void MqttConnection::stop() {
    m_state->stopping = true;
    m_state->wakeUp.wake();
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->ended.wait_until(lock, SteadyClock::now() + kStopLimit, [this] { return !m_state->running; });
    m_state->closed = true;
}

std::size_t MqttConnection::receiveMaximum() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->receiveMaximum;
}

std::int32_t MqttConnection::publish(const std::string& topic, const std::string& payload, bool retain,
                                     Kind kind, std::string& error, Form form) {
    State& state = *m_state;
    Unconfirmed message{topic, payload, retain, kind, 0, std::move(form)};
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.closed) {
        error = "the connection is closed";
        return kClosed;
    }
    if (!state.connected && message.form.isForOneConnection) {
        error = "no connection to the broker";
        return kNotConnected;
    }
    if (state.largestPacket != 0 && message.bytes() > state.largestPacket) {
        error = std::to_string(payload.size()) + " bytes do not fit into the broker's largest packet of " +
                std::to_string(state.largestPacket);
        return kTooLarge;
    }
    if (message.bytes() > kMaxUnconfirmedBytes) {
        error = std::to_string(payload.size()) + " bytes are more than the " +
                std::to_string(kMaxUnconfirmedBytes) + " that may wait for the broker";
        return kTooLarge;
    }
    if (state.unconfirmed.size() >= kMaxUnconfirmed ||
        state.unconfirmedBytes + message.bytes() > kMaxUnconfirmedBytes) {
        error = std::to_string(state.unconfirmed.size()) + " messages with " +
                std::to_string(state.unconfirmedBytes) + " bytes wait for the broker already";
        return kQueueFull;
    }
    if (state.connected) {
        const int result = state.hand(message);
        if (result != MOSQ_ERR_SUCCESS) {
            error = mosquitto_strerror(result);
            return kFailed;
        }
        state.wakeUp.wake();
    }
    state.unconfirmedBytes += message.bytes();
    state.unconfirmed.push_back(std::move(message));
    return 0;
}

std::size_t MqttConnection::unconfirmed(Kind kind) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return static_cast<std::size_t>(
        std::count_if(m_state->unconfirmed.begin(), m_state->unconfirmed.end(),
                      [kind](const Unconfirmed& message) { return message.kind == kind; }));
}

bool MqttConnection::taken(int reason) {
    return reason < MQTT_RC_UNSPECIFIED && reason != MQTT_RC_NO_MATCHING_SUBSCRIBERS;
}

bool MqttConnection::State::makeClient(std::string& error) {
    std::unique_ptr<TlsContext> madeTls;  // outlives the client that uses it
    Client made(mosquitto_new(clientId.empty() ? nullptr : clientId.c_str(), true, this));
    if (!made) {
        error = "no MQTT client could be made: " + std::string(std::strerror(errno));
        return false;
    }
    mosquitto* const raw = made.get();
    mosquitto_threaded_set(raw, true);
    mosquitto_int_option(raw, MOSQ_OPT_PROTOCOL_VERSION, protocol);
    mosquitto_int_option(raw, MOSQ_OPT_TCP_NODELAY, 1);
    const auto check = [&error](int code, const std::string& doing) {
        if (code != MOSQ_ERR_SUCCESS) {
            error = doing + ": " + (code == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(code));
        }
        return code == MOSQ_ERR_SUCCESS;
    };
    if (!settings.user.empty() &&
        !check(mosquitto_username_pw_set(raw, settings.user.c_str(), settings.password.c_str()), "user")) {
        return false;
    }
    if (settings.tls) {
        madeTls = TlsContext::make(settings, brokers[chosen].host, error);
        if (!madeTls || !check(mosquitto_int_option(raw, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0), "TLS options") ||
            !check(mosquitto_void_option(raw, MOSQ_OPT_SSL_CTX, madeTls->native()), "TLS options")) {
            return false;
        }
    }
    if (!will.topic.empty() &&
        !check(mosquitto_will_set(raw, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                  will.payload.data(), kQos, true),
               "last will")) {
        return false;
    }
    setCallbacks(raw);
    const std::lock_guard<std::mutex> lock(mutex);
    client = std::move(made);  // before its context is replaced, which the old client used
    tls = std::move(madeTls);
    return true;
}

void MqttConnection::State::setCallbacks(mosquitto* raw) {
    mosquitto_connect_v5_callback_set(
        raw, [](mosquitto*, void* object, int reason, int, const mosquitto_property* properties) {
            of(object).onConnect(reason, properties);
        });
    mosquitto_disconnect_v5_callback_set(
        raw, [](mosquitto*, void* object, int reason, const mosquitto_property*) {
            State& state = of(object);
            state.tooLarge = state.tooLarge || reason == MQTT_RC_PACKET_TOO_LARGE;
            if (reason >= MQTT_RC_UNSPECIFIED) {
                state.refusal = mosquitto_reason_string(reason);
            }
        });
    mosquitto_publish_v5_callback_set(
        raw, [](mosquitto*, void* object, int messageId, int reason, const mosquitto_property*) {
            of(object).onPublish(messageId, reason);
        });
    mosquitto_message_v5_callback_set(
        raw, [](mosquitto*, void* object, const mosquitto_message* message,
                const mosquitto_property* properties) { of(object).onMessage(*message, properties); });
    mosquitto_subscribe_v5_callback_set(raw, [](mosquitto*, void* object, int messageId, int count,
                                                const int* granted, const mosquitto_property*) {
        of(object).onSubscribed(messageId, count > 0 ? granted[0] : MQTT_RC_UNSPECIFIED);
    });
    mosquitto_log_callback_set(raw, [](mosquitto*, void* object, int level, const char* text) {
        if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) != 0) {
            of(object).libraryError = text;
        }
    });
}

void MqttConnection::State::onMessage(const mosquitto_message& message,
                                      const mosquitto_property* properties) {
    const auto size = static_cast<std::size_t>(message.payloadlen);
    if (largestMessage != 0 && size > largestMessage) {
        static Counter& refused = Status::counter("orx.refused");
        refused.add();
        handlers.say(3, std::string(message.topic) + ": refused, at most " + std::to_string(largestMessage) +
                            " bytes are expected, found " + std::to_string(size));
    } else if (!stopping) {
        handlers.message(message.topic + suffixOf(properties),
                         std::string(static_cast<const char*>(message.payload), size), message.retain);
    }
}

void MqttConnection::State::onConnect(int reason, const mosquitto_property* properties) {
    static Counter& reconnects = Status::counter("orx.reconnects");
    if (reason != 0) {
        if (reason == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION && protocol == MQTT_PROTOCOL_V5) {
            handlers.say(5, broker() + " does not speak MQTT 5; trying 3.1.1");
            protocol = MQTT_PROTOCOL_V311;
        }
        refusal =
            protocol == MQTT_PROTOCOL_V5 ? mosquitto_reason_string(reason) : mosquitto_connack_string(reason);
        return;
    }
    std::uint32_t limit = 0;
    mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &limit, false);
    std::uint16_t atOnce = 0;
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &atOnce, false);
    if (everConnected) {
        reconnects.add();
    }
    everConnected = true;
    connectedAt = SteadyClock::now();
    confirmsOthers = false;
    loggedCauses.assign(brokers.size(), {});
    libraryError.clear();
    refusal.clear();
    handlers.say(5, "connected to the broker at " + broker());
    refusedTopics.clear();
    asked.clear();
    isRefusalLogged = false;
    subscribe(subscriptions);
    isNewlySubscribed = true;
    sendUnconfirmed(limit, atOnce);
    if (!stopping) {
        handlers.connected();
    }
}

void MqttConnection::State::subscribe(const std::vector<std::string>& topics) {
    isNewlySubscribed = false;
    for (const std::string& topic : topics) {
        int messageId = 0;
        if (mosquitto_subscribe(client.get(), &messageId, topic.c_str(), kQos) == MOSQ_ERR_SUCCESS) {
            asked[messageId] = topic;
        }
    }
}

/// A broker may refuse for a moment, as one of a cluster does when it has lost another: what is refused is
/// asked for again.
void MqttConnection::State::onSubscribed(int messageId, int reason) {
    const auto answered = asked.extract(messageId);
    if (answered.empty()) {
        return;
    }
    if (reason >= MQTT_RC_UNSPECIFIED) {
        if (!std::exchange(isRefusalLogged, true)) {
            handlers.say(3, broker() + " refuses the subscription of " + answered.mapped() + ": " +
                                mosquitto_reason_string(reason) + "; trying again");
        }
        refusedTopics.push_back(answered.mapped());
        subscribeAt = SteadyClock::now() + std::chrono::seconds(settings.reconnectMaxSeconds);
    } else {
        isNewlySubscribed = true;
    }
    if (asked.empty() && isNewlySubscribed && handlers.subscribed && !stopping) {
        handlers.subscribed();
    }
}

/// Gives the library one message. Its code; a connection that is going down is no trouble, as what is
/// unconfirmed is sent on the next one. The mutex must be held.
int MqttConnection::State::hand(Unconfirmed& message) {
    message.messageId = 0;
    const MqttConnection::Form& form = message.form;
    const bool isTold = protocol == MQTT_PROTOCOL_V5;
    mosquitto_property* properties = nullptr;
    if (isTold && !form.contentType.empty()) {
        mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, form.contentType.c_str());
    }
    if (isTold && !form.encoding.empty()) {
        mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, kEncodingProperty,
                                           form.encoding.c_str());
    }
    if (isTold && !form.spoolNumber.empty()) {
        mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, kSpoolProperty,
                                           form.spoolNumber.c_str());
    }
    const std::string topic = message.topic + (isTold ? "" : suffixOf(form.encoding, form.spoolNumber));
    const int result = mosquitto_publish_v5(client.get(), &message.messageId, topic.c_str(),
                                            static_cast<int>(message.payload.size()), message.payload.data(),
                                            kQos, message.retain, properties);
    mosquitto_property_free_all(&properties);
    return result == MOSQ_ERR_NO_CONN ? MOSQ_ERR_SUCCESS : result;
}

/// On a new connection, to a broker that takes packets of up to `limit` bytes and `atOnce` of them
/// unconfirmed (0: any): sends again, in order, what no earlier one got confirmed. With one lock, so that
/// what is published meanwhile follows.
void MqttConnection::State::sendUnconfirmed(std::size_t limit, std::uint16_t atOnce) {
    std::vector<Unconfirmed> unfit;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        largestPacket = limit;
        receiveMaximum = atOnce == 0 ? 0xFFFF : atOnce;
        connected = true;
        for (auto at = unconfirmed.begin(); at != unconfirmed.end();) {
            const bool fits = largestPacket == 0 || at->bytes() <= largestPacket;
            if (fits && hand(*at) == MOSQ_ERR_SUCCESS) {
                ++at;
                continue;
            }
            unconfirmedBytes -= at->bytes();
            unfit.push_back(std::move(*at));
            at = unconfirmed.erase(at);
        }
    }
    if (!unfit.empty()) {
        handlers.say(3, std::to_string(unfit.size()) + " unsent messages are given up, as " + broker() +
                            " takes none of their size");
        settle(unfit, MQTT_RC_PACKET_TOO_LARGE);
    }
}

void MqttConnection::State::settle(const std::vector<Unconfirmed>& messages, int reason) {
    for (const Unconfirmed& message : messages) {
        if (stopping) {
            continue;
        }
        if (!message.form.isForOneConnection) {
            handlers.settled(message.kind, reason);
        } else if (handlers.settledOnce) {
            handlers.settledOnce(message.form.tag, reason);
        }
    }
}

void MqttConnection::State::onPublish(int messageId, int reason) {
    std::vector<Unconfirmed> confirmed;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found =
            std::find_if(unconfirmed.begin(), unconfirmed.end(),
                         [messageId](const Unconfirmed& message) { return message.messageId == messageId; });
        if (found != unconfirmed.end()) {
            unconfirmedBytes -= found->bytes();
            confirmed.push_back(std::move(*found));
            unconfirmed.erase(found);
        }
    }
    confirmsOthers = confirmsOthers || !confirmed.empty();
    settle(confirmed, reason);
}

void MqttConnection::State::logDown(const std::string& cause) {
    if (stopping || cause == loggedCauses[chosen]) {
        return;
    }
    loggedCauses[chosen] = cause;
    handlers.say(3, "no connection to the broker at " + broker() + ": " + cause + "; trying again");
}

std::string MqttConnection::State::causeOf(int code, int systemError) const {
    if (!refusal.empty()) {
        return refusal;
    }
    if (tls && !tls->cause().empty()) {
        return tls->cause();
    }
    std::string cause = code == MOSQ_ERR_ERRNO ? std::strerror(systemError) : mosquitto_strerror(code);
    if (code == MOSQ_ERR_TLS && !libraryError.empty()) {
        cause += " (" + libraryError + ")";
    }
    return cause;
}

/// A broker with MQTT 3.1.1 reports neither its limit nor why it ends a connection. One that confirms smaller
/// messages, and ends every connection while the same one is the largest unconfirmed, refuses its size.
void MqttConnection::State::noteUnexplainedEnd() {
    std::size_t largest = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const Unconfirmed& message : unconfirmed) {
            largest = std::max(largest, message.bytes());
        }
    }
    if (largest == 0 || !confirmsOthers) {
        return;
    }
    suspicions = largest == suspect ? suspicions + 1 : 1;
    suspect = largest;
    if (suspicions == kMostSuspicions) {
        tooLarge = true;
        suspicions = 0;
    }
}

/// The broker ended the connection because of a packet's size, without having sent its limit before: sent
/// again, the packet would end every connection.
void MqttConnection::State::giveUpLargest() {
    std::vector<Unconfirmed> unfit;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto largest = std::max_element(
            unconfirmed.begin(), unconfirmed.end(),
            [](const Unconfirmed& a, const Unconfirmed& b) { return a.bytes() < b.bytes(); });
        if (largest != unconfirmed.end()) {
            unconfirmedBytes -= largest->bytes();
            unfit.push_back(std::move(*largest));
            unconfirmed.erase(largest);
        }
    }
    tooLarge = false;
    for (const Unconfirmed& message : unfit) {
        handlers.say(3, "a message of " + std::to_string(message.payload.size()) + " bytes is given up, as " +
                            broker() + " refuses its size");
    }
    settle(unfit, MQTT_RC_PACKET_TOO_LARGE);
}

void MqttConnection::State::loseWhatWasForThisConnection() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (auto at = unconfirmed.begin(); at != unconfirmed.end();) {
            if (at->form.isForOneConnection) {
                unconfirmedBytes -= at->bytes();
                at = unconfirmed.erase(at);
            } else {
                ++at;
            }
        }
    }
    if (handlers.lost && !stopping) {
        handlers.lost();
    }
}

int MqttConnection::State::connectOnce() {
    libraryError.clear();
    refusal.clear();
    errno = 0;
    mosquitto_property* properties = nullptr;
    if (largestMessage != 0 && protocol == MQTT_PROTOCOL_V5) {
        mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE,
                                     static_cast<std::uint32_t>(largestMessage + kPacketOverhead));
    }
    const int result =
        mosquitto_connect_bind_v5(client.get(), brokers[chosen].host.c_str(), brokers[chosen].port,
                                  static_cast<int>(settings.keepAliveSeconds), nullptr, properties);
    const int systemError = errno;
    mosquitto_property_free_all(&properties);
    errno = systemError;
    return result;
}

/// Serves the connection until it ends. The library's code.
int MqttConnection::State::serve() {
    std::optional<SteadyClock::time_point> leaveAt;
    int result = MOSQ_ERR_SUCCESS;
    while (result == MOSQ_ERR_SUCCESS) {
        if (stopping) {
            if (!leaveAt) {
                leaveAt = SteadyClock::now() + kDrainLimit;
            }
            bool done = SteadyClock::now() >= *leaveAt;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                done = done || !connected || unconfirmed.empty();
            }
            if (done) {
                mosquitto_disconnect(client.get());
                mosquitto_loop_write(client.get(), 1);
                return MOSQ_ERR_SUCCESS;
            }
        }
        const int socket = mosquitto_socket(client.get());
        if (socket < 0) {
            return MOSQ_ERR_CONN_LOST;
        }
        if (!refusedTopics.empty() && asked.empty() && SteadyClock::now() >= subscribeAt) {
            subscribe(std::exchange(refusedTopics, {}));
        }
        const bool wantsWrite = mosquitto_want_write(client.get());
        pollfd handles[] = {{socket, static_cast<short>(POLLIN | (wantsWrite ? POLLOUT : 0)), 0},
                            {wakeUp.get(), POLLIN, 0}};
        const int wait = leaveAt ? 20 : kPollMs;
        if (::poll(handles, 2, wait) < 0 && errno != EINTR) {
            return MOSQ_ERR_ERRNO;
        }
        if ((handles[1].revents & POLLIN) != 0) {
            wakeUp.reset();
        }
        if (handles[0].revents != 0) {
            // Under TLS a packet may wait in the library where poll() does not see it: read until it says
            // that there is no more.
            int packets = 0;
            do {
                errno = 0;
                result = mosquitto_loop_read(client.get(), 1);
            } while (result == MOSQ_ERR_SUCCESS && errno != EAGAIN && errno != EWOULDBLOCK &&
                     ++packets < 100 && mosquitto_socket(client.get()) >= 0);
        }
        if (result == MOSQ_ERR_SUCCESS && (wantsWrite || (handles[1].revents & POLLIN) != 0)) {
            errno = 0;
            result = mosquitto_loop_write(client.get(), 1);
        }
        if (result == MOSQ_ERR_SUCCESS) {
            errno = 0;
            result = mosquitto_loop_misc(client.get());
        }
    }
    return result;
}

void MqttConnection::State::waitBeforeReconnect() {
    const std::chrono::seconds least{std::max<std::uint32_t>(1, settings.reconnectMinSeconds)};
    const std::chrono::seconds most{std::max<std::uint32_t>(1, settings.reconnectMaxSeconds)};
    // A broker that ends each connection soon is no reason to begin with the shortest pause again.
    if (connectedAt && SteadyClock::now() - *connectedAt >= most) {
        pause = {};
    }
    connectedAt.reset();
    // Each broker is tried with this pause before the next longer one.
    if (pause.count() == 0 || ++triedInRound >= brokers.size()) {
        pause = std::min(std::max(least, most), std::max(least, pause * 2));
        triedInRound = 0;
    }
    chosen = (chosen + 1) % brokers.size();
    // A fleet that lost its broker must not return in step.
    const milliseconds full = pause;
    const auto spread =
        std::uniform_int_distribution<std::int64_t>(full.count() * 3 / 4, full.count())(jitter);
    const auto until = SteadyClock::now() + milliseconds(spread);
    while (!stopping) {
        const auto left = std::chrono::duration_cast<milliseconds>(until - SteadyClock::now()).count();
        if (left <= 0) {
            return;
        }
        pollfd handle{wakeUp.get(), POLLIN, 0};
        if (::poll(&handle, 1, static_cast<int>(left)) > 0) {
            wakeUp.reset();
        }
    }
}

void MqttConnection::State::run() {
    while (!stopping) {
        std::string error;
        if (!makeClient(error)) {
            logDown(error);
            waitBeforeReconnect();
            continue;
        }
        const int triedProtocol = protocol;
        int result = connectOnce();
        int systemError = errno;
        if (result == MOSQ_ERR_SUCCESS) {
            result = serve();
            systemError = errno;
        }
        bool wasConnected = false;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            wasConnected = connected;
            connected = false;
            client.reset();
        }
        if (stopping) {
            break;
        }
        if (protocol != triedProtocol) {
            continue;  // at once, with the older protocol
        }
        logDown(causeOf(result, systemError));
        if (wasConnected && triedProtocol == MQTT_PROTOCOL_V311 && result != MOSQ_ERR_KEEPALIVE) {
            noteUnexplainedEnd();
        }
        if (tooLarge) {
            giveUpLargest();
        }
        loseWhatWasForThisConnection();
        waitBeforeReconnect();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    running = false;
    ended.notify_all();
}

}  // namespace kyo::orx
