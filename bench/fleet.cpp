/// Thousands of vehicles on one thread, each with a connection of its own to a broker. bench/fleet starts it:
///
///     bench_fleet ENVELOPES PORT VEHICLES PERIOD_MS TIMEOUT_MS
///
/// Each vehicle does what docs/mqtt.md asks of one with a spool: presence and health, a request for its
/// configuration, an envelope each period, again without a result in time. The envelopes are recorded ones
/// with an identifier, a number and times of their own, compressed as a vehicle does it. Reads commands and
/// answers each with a line of JSON: "go" starts the periods, "state" counts, "stop" ends the periods,
/// "numbers" lists for each vehicle how many envelopes it has made and which of them have no result.
#include <linux/tcp.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "backend/Compression.h"
#include "json/JsonFields.h"
#include "kyo/Json.h"

namespace {

using kyo::Json::Value;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kQos = 1;
constexpr int kKeepAlive = 30;       // s, as the manifest's default
constexpr std::size_t kWindow = 16;  // envelopes without a result, as the manifest's default
constexpr milliseconds kTick{20};    // how late an envelope may be
constexpr milliseconds kHousekeeping{1000};
constexpr milliseconds kHealthEvery{300'000};
constexpr milliseconds kConnectEvery{2};  // so that connections do not overrun the broker's queue of them
constexpr milliseconds kReconnect{1000};  // and up to a second more
constexpr std::int64_t kLateMs = 10'000;
constexpr std::uint64_t kFirstSequence = 1'000'000'000;  // so that all numbers have as many digits

std::int64_t wallMs() {
    return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void writeDigits(std::string& text, std::size_t at, std::size_t width, std::uint64_t value) {
    for (std::size_t i = width; i-- > 0; value /= 10) {
        text[at + i] = static_cast<char>('0' + value % 10);
    }
}

/// One envelope, with the places that differ between vehicles and periods.
class Recording {
  public:
    explicit Recording(std::string text) : m_text(std::move(text)) {
        const auto after = [this](std::string_view key) {
            const auto at = m_text.find(key);
            if (at == std::string::npos) {
                throw std::runtime_error("a recorded envelope has no " + std::string(key));
            }
            return at + key.size();
        };
        const auto sequence = after(R"(\"sequenceNumber\":)");
        m_text.replace(sequence, m_text.find_first_not_of("0123456789", sequence) - sequence,
                       std::to_string(kFirstSequence));
        m_sequence = after(R"(\"sequenceNumber\":)");
        m_messageId = after(R"("messageId":")");
        m_seconds = m_text.rfind(R"("timestamp":)") + 12;
        m_createdMs = std::stoll(m_text.substr(after(R"(\"createDatetime\":\")"), kMsDigits));
        for (const std::string_view key :
             {R"(\"createDatetime\":\")", R"(\"endOfHistory\":\")", R"(\"timestamp\":\")"}) {
            for (auto at = m_text.find(key); at != std::string::npos; at = m_text.find(key, at + 1)) {
                m_times.push_back(at + key.size());
                m_offsets.push_back(std::stoll(m_text.substr(m_times.back(), kMsDigits)) - m_createdMs);
            }
        }
    }

    void stamp(const std::string& messageId, std::uint64_t number, std::int64_t createdMs,
               std::string& out) const {
        out = m_text;
        std::copy(messageId.begin(), messageId.end(), out.begin() + static_cast<std::ptrdiff_t>(m_messageId));
        writeDigits(out, m_sequence, 10, kFirstSequence + number);
        writeDigits(out, m_seconds, 10, static_cast<std::uint64_t>(createdMs / 1000));
        for (std::size_t i = 0; i < m_times.size(); ++i) {
            writeDigits(out, m_times[i], kMsDigits, static_cast<std::uint64_t>(createdMs + m_offsets[i]));
        }
    }

  private:
    static constexpr std::size_t kMsDigits = 13;

    std::string m_text;
    std::size_t m_messageId = 0;
    std::size_t m_sequence = 0;
    std::size_t m_seconds = 0;
    std::vector<std::size_t> m_times;
    std::vector<std::int64_t> m_offsets;  ///< of these times from the envelope's, in ms
    std::int64_t m_createdMs = 0;
};

std::uint64_t mixed(std::uint64_t value) {  // splitmix64
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

/// As far apart in an index as those of real vehicles.
std::string uuid(std::uint64_t seed, std::uint64_t vehicle, std::uint64_t number) {
    constexpr std::string_view kHex = "0123456789abcdef";
    const std::uint64_t first = mixed(seed ^ mixed((vehicle << 32) + number));
    const std::uint64_t second = mixed(first + number);
    std::string out;
    for (int i = 0; i < 32; ++i) {
        out += kHex[((i < 16 ? first : second) >> (4 * (i % 16))) & 15];
        out += i == 7 || i == 11 || i == 15 || i == 19 ? "-" : "";
    }
    return out;
}

struct Totals {
    std::uint64_t sent = 0;
    std::uint64_t again = 0;
    std::uint64_t answered = 0;
    std::uint64_t late = 0;
    std::uint64_t refused = 0;  ///< results that were not 0
    std::uint64_t connections = 0;
    std::uint64_t configurations = 0;
    std::uint64_t textBytes = 0;
    std::uint64_t payloadBytes = 0;
    std::vector<std::uint32_t> latencies;  ///< from the moment an envelope is due to its result, in ms
};

/// What the vehicles share.
struct Fleet {
    std::vector<Recording> recordings;
    int port = 0;
    milliseconds period{0};
    milliseconds timeout{0};
    int epoll = -1;
    std::uint64_t seed = std::random_device{}();
    std::minstd_rand random{std::random_device{}()};
    Totals totals;
    std::string text;
    std::unique_ptr<kyo::orx::Compressor> compressor;
    bool isGoing = false;
};

class Vehicle {
  public:
    Vehicle(Fleet& fleet, std::uint32_t index, Clock::time_point connectAt)
        : m_fleet(fleet), m_index(index), m_prefix("vlm/fleet-" + std::to_string(index)), m_next(connectAt) {}

    void go(Clock::time_point now) {
        std::uniform_int_distribution<std::int64_t> phase(0, m_fleet.period.count() - 1);
        m_due = now + milliseconds(phase(m_fleet.random));
    }

    void tick(Clock::time_point now) {
        for (; m_fleet.isGoing && m_due <= now; m_due += m_fleet.period) {
            ++m_made;
            // The same ones for two vehicles each, as with a common configuration.
            m_waiting.push_back({m_made, uuid(m_fleet.seed, m_index / 2, m_made), wallMs(), {}, 0, false});
        }
        if (now >= m_next) {
            m_next = now + kHousekeeping;
            if (!m_client) {
                connect();
            } else if (mosquitto_loop_misc(m_client.get()) != MOSQ_ERR_SUCCESS) {
                lose(now);
            }
        }
        if (m_isOpen && now >= m_health) {
            m_health = now + kHealthEvery;
            Value health(kyo::Json::objectValue);
            health["counters"]["spool.stored"] = static_cast<kyo::Json::UInt64>(m_made);
            health["timestamp"] = static_cast<kyo::Json::Int64>(wallMs() / 1000);
            health["waitingEnvelopes"] = static_cast<kyo::Json::UInt64>(m_waiting.size());
            publish("/health", vlmProd::compactText(health), true);
        }
        if (m_isOpen && !m_waiting.empty()) {
            sendOn(now);
        }
        watch();
    }

    void onSocket(std::uint32_t events, Clock::time_point now) {
        if (!m_client) {
            return;
        }
        int code = MOSQ_ERR_SUCCESS;
        if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
            code = mosquitto_loop_read(m_client.get(), 1);
        }
        if (code == MOSQ_ERR_SUCCESS && (events & EPOLLOUT) != 0) {
            code = mosquitto_loop_write(m_client.get(), 1);
        }
        if (code != MOSQ_ERR_SUCCESS) {
            lose(now);
            return;
        }
        if (m_isOpen && !m_waiting.empty()) {
            sendOn(now);
        }
        watch();
    }

    bool isConnected() const { return m_isConnected; }
    bool isOpen() const { return m_isOpen; }
    std::uint64_t made() const { return m_made; }
    std::size_t waiting() const { return m_waiting.size(); }
    std::vector<std::uint64_t> withoutResult() const {
        std::vector<std::uint64_t> out;
        for (const Waiting& one : m_waiting) {
            out.push_back(one.number);
        }
        return out;
    }
    /// TCP payload of the connection that lasts, sent and received.
    std::pair<std::uint64_t, std::uint64_t> bytes() const {
        tcp_info info{};
        socklen_t size = sizeof info;
        if (!m_client ||
            ::getsockopt(mosquitto_socket(m_client.get()), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
            return {};
        }
        return {info.tcpi_bytes_acked, info.tcpi_bytes_received};
    }

  private:
    struct Waiting {
        std::uint64_t number = 0;
        std::string messageId;
        std::int64_t createdMs = 0;
        std::optional<Clock::time_point> sent;
        int times = 0;
        bool isHeld = false;  ///< a result was not 0: until an opening message
    };
    struct Deleter {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    static Vehicle& of(void* object) { return *static_cast<Vehicle*>(object); }

    void connect() {
        // A client for each connection: the library would send again by itself what the last one left.
        m_client.reset(mosquitto_new(("fleet-" + std::to_string(m_index)).c_str(), true, this));
        mosquitto* const raw = m_client.get();
        if (raw == nullptr) {
            throw std::runtime_error("no memory for a client");
        }
        const std::string offline = R"({"state":"offline"})";
        mosquitto_int_option(raw, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_will_set(raw, (m_prefix + "/status").c_str(), static_cast<int>(offline.size()),
                           offline.data(), kQos, true);
        mosquitto_connect_v5_callback_set(
            raw, [](mosquitto*, void* object, int reason, int, const mosquitto_property*) {
                of(object).onConnect(reason);
            });
        mosquitto_subscribe_callback_set(
            raw, [](mosquitto*, void* object, int, int, const int*) { of(object).onSubscribed(); });
        mosquitto_message_callback_set(raw, [](mosquitto*, void* object, const mosquitto_message* message) {
            of(object).onMessage(message->topic, std::string(static_cast<const char*>(message->payload),
                                                             static_cast<std::size_t>(message->payloadlen)));
        });
        if (mosquitto_connect(raw, "127.0.0.1", m_fleet.port, kKeepAlive) != MOSQ_ERR_SUCCESS) {
            lose(Clock::now());
            return;
        }
        m_events = EPOLLIN;
        epoll_event event{m_events, {.u32 = m_index}};
        if (::epoll_ctl(m_fleet.epoll, EPOLL_CTL_ADD, mosquitto_socket(raw), &event) != 0) {
            throw std::runtime_error("a socket cannot be watched");
        }
    }

    void lose(Clock::time_point now) {
        m_client.reset();  // closes the socket, which epoll forgets then
        m_isConnected = m_isOpen = false;
        m_window = 1;
        for (Waiting& one : m_waiting) {
            one.sent.reset();
        }
        m_next = now + kReconnect + milliseconds(m_fleet.random() % 1000);
    }

    /// Asks for room in the socket only while something waits for it.
    void watch() {
        if (!m_client) {
            return;
        }
        const std::uint32_t wanted =
            EPOLLIN | (mosquitto_want_write(m_client.get()) ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
        if (wanted != m_events) {
            m_events = wanted;
            epoll_event event{m_events, {.u32 = m_index}};
            ::epoll_ctl(m_fleet.epoll, EPOLL_CTL_MOD, mosquitto_socket(m_client.get()), &event);
        }
    }

    void onConnect(int reason) {
        if (reason != 0) {
            return;  // the broker ends the connection
        }
        m_isConnected = true;
        m_health = {};
        m_subscribed = 0;
        ++m_fleet.totals.connections;
        for (const char* suffix : {"/mastercontrol", "/config/response"}) {
            mosquitto_subscribe(m_client.get(), nullptr, (m_prefix + suffix).c_str(), kQos);
        }
    }

    void onSubscribed() {
        if (++m_subscribed == 2) {
            publish("/status",
                    R"({"state":"online","serverName":"21.10.0","offeredDataTypes":["VLMReport"]})", true);
        }
    }

    void onMessage(const std::string& topic, const std::string& payload) {
        Value content;
        if (topic.ends_with("/config/response")) {
            ++m_fleet.totals.configurations;
        } else if (topic.ends_with("/mastercontrol") && kyo::Json::Reader().parse(payload, content, false)) {
            onControl(content);
        }
    }

    void onControl(const Value& control) {
        const std::string id = vlmProd::textOf(vlmProd::member(control, "messageId"));
        const int result = control["dataDeliveryResult"].asInt();
        const bool opens =
            control["backendChannelControl"].asInt() == 0 && !control["permittedDataType"].empty();
        if (!id.empty()) {
            onResult(id, result);
            m_isOpen = m_isOpen && opens && result != 2;
            return;
        }
        m_isOpen = opens && result == 0;
        for (Waiting& one : m_waiting) {
            one.isHeld = one.isHeld && !m_isOpen;
        }
        if (m_isOpen && !std::exchange(m_hasAsked, true)) {
            publish("/config/request", R"({"serverName":"21.10.0"})", false);
        }
    }

    void onResult(const std::string& id, int result) {
        const auto found = std::find_if(m_waiting.begin(), m_waiting.end(),
                                        [&id](const Waiting& one) { return one.messageId == id; });
        if (found == m_waiting.end()) {
            return;  // of an envelope that came twice
        }
        Totals& totals = m_fleet.totals;
        if (result != 0) {
            ++totals.refused;
            found->sent.reset();
            found->isHeld = true;
            return;
        }
        const std::int64_t took = wallMs() - found->createdMs;
        totals.latencies.push_back(static_cast<std::uint32_t>(took));
        totals.late += took > kLateMs ? 1 : 0;
        ++totals.answered;
        m_waiting.erase(found);
        m_window = std::min(2 * m_window, kWindow);
    }

    void sendOn(Clock::time_point now) {
        std::size_t onTheWay = 0;
        for (Waiting& one : m_waiting) {
            if (one.sent && now - *one.sent > m_fleet.timeout) {
                one.sent.reset();
                m_window = 1;
            }
            onTheWay += one.sent ? 1 : 0;
        }
        for (Waiting& one : m_waiting) {
            if (onTheWay >= m_window) {
                return;
            }
            if (!one.sent && !one.isHeld) {
                one.sent = now;
                m_fleet.totals.again += one.times++ == 0 ? 0 : 1;
                ++onTheWay;
                sendEnvelope(one);
            }
        }
    }

    void sendEnvelope(const Waiting& one) {
        const auto& recordings = m_fleet.recordings;
        recordings[(m_index + one.number) % recordings.size()].stamp(one.messageId, one.number, one.createdMs,
                                                                     m_fleet.text);
        const std::string payload = m_fleet.compressor->compress(m_fleet.text);
        const std::string spool = std::to_string(one.number);
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, "application/zstd");
        mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "encoding", "zstd-50001");
        mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "spool", spool.c_str());
        mosquitto_publish_v5(m_client.get(), nullptr, (m_prefix + "/data").c_str(),
                             static_cast<int>(payload.size()), payload.data(), kQos, false, properties);
        mosquitto_property_free_all(&properties);
        ++m_fleet.totals.sent;
        m_fleet.totals.textBytes += m_fleet.text.size();
        m_fleet.totals.payloadBytes += payload.size();
    }

    void publish(const char* suffix, const std::string& payload, bool retain) {
        mosquitto_publish(m_client.get(), nullptr, (m_prefix + suffix).c_str(),
                          static_cast<int>(payload.size()), payload.data(), kQos, retain);
    }

    Fleet& m_fleet;
    const std::uint32_t m_index;
    const std::string m_prefix;
    std::unique_ptr<mosquitto, Deleter> m_client;
    std::uint32_t m_events = 0;
    int m_subscribed = 0;
    bool m_isConnected = false;
    bool m_isOpen = false;
    bool m_hasAsked = false;
    std::uint64_t m_made = 0;
    std::deque<Waiting> m_waiting;
    std::size_t m_window = 1;
    Clock::time_point m_due{};
    Clock::time_point m_health{};
    Clock::time_point m_next;  ///< housekeeping, or the next try to connect
};

class Program {
  public:
    explicit Program(const std::vector<std::string>& arguments) {
        std::string error;
        const auto dictionary = kyo::orx::Dictionary::load("50001", error);
        if (!dictionary) {
            throw std::runtime_error(error);
        }
        m_fleet.compressor = std::make_unique<kyo::orx::Compressor>(1, dictionary);
        std::ifstream lines(arguments[0]);
        for (std::string line; std::getline(lines, line);) {
            m_fleet.recordings.emplace_back(std::move(line));
        }
        if (m_fleet.recordings.empty()) {
            throw std::runtime_error(arguments[0] + " has no envelope");
        }
        m_fleet.port = std::stoi(arguments[1]);
        m_fleet.period = milliseconds(std::stoll(arguments[3]));
        m_fleet.timeout = milliseconds(std::stoll(arguments[4]));
        m_fleet.epoll = ::epoll_create1(EPOLL_CLOEXEC);
        const std::uint32_t count = static_cast<std::uint32_t>(std::stoul(arguments[2]));
        for (std::uint32_t i = 0; i < count; ++i) {
            m_vehicles.push_back(std::make_unique<Vehicle>(m_fleet, i, Clock::now() + i * kConnectEvery));
        }
        epoll_event event{EPOLLIN, {.u32 = kInput}};
        ::epoll_ctl(m_fleet.epoll, EPOLL_CTL_ADD, STDIN_FILENO, &event);
    }

    /// Until the input ends.
    void run() {
        std::array<epoll_event, 256> events{};
        auto next = Clock::now();
        for (;;) {
            const auto left = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
            const int count = ::epoll_wait(m_fleet.epoll, events.data(), static_cast<int>(events.size()),
                                           static_cast<int>(std::max<std::int64_t>(0, left)));
            const auto now = Clock::now();
            for (int i = 0; i < count; ++i) {
                const epoll_event& event = events[static_cast<std::size_t>(i)];
                if (event.data.u32 != kInput) {
                    m_vehicles[event.data.u32]->onSocket(event.events, now);
                } else if (!onInput()) {
                    return;
                }
            }
            if (now >= next) {
                next = now + kTick;
                for (const auto& vehicle : m_vehicles) {
                    vehicle->tick(now);
                }
            }
        }
    }

  private:
    static constexpr std::uint32_t kInput = 0xFFFFFFFF;

    bool onInput() {
        char buffer[256];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got <= 0) {
            return false;
        }
        m_line.append(buffer, static_cast<std::size_t>(got));
        for (auto end = m_line.find('\n'); end != std::string::npos; end = m_line.find('\n')) {
            const std::string command = m_line.substr(0, end);
            m_line.erase(0, end + 1);
            if (command == "go" || command == "stop") {
                m_fleet.isGoing = command == "go";
                for (const auto& vehicle : m_vehicles) {
                    vehicle->go(Clock::now());
                }
            }
            std::cout << vlmProd::compactText(command == "numbers" ? numbers() : state()) << std::endl;
        }
        return true;
    }

    Value state() {
        const auto count = [this](const auto& what) {
            std::uint64_t sum = 0;
            for (const auto& vehicle : m_vehicles) {
                sum += what(*vehicle);
            }
            return static_cast<kyo::Json::UInt64>(sum);
        };
        Totals& totals = m_fleet.totals;
        Value out(kyo::Json::objectValue);
        out["connected"] = count([](const Vehicle& one) { return one.isConnected() ? 1u : 0u; });
        out["open"] = count([](const Vehicle& one) { return one.isOpen() ? 1u : 0u; });
        out["made"] = count([](const Vehicle& one) { return one.made(); });
        out["waiting"] = count([](const Vehicle& one) { return one.waiting(); });
        out["wireSent"] = count([](const Vehicle& one) { return one.bytes().first; });
        out["wireReceived"] = count([](const Vehicle& one) { return one.bytes().second; });
        const std::pair<const char*, std::uint64_t> counters[] = {{"sent", totals.sent},
                                                                  {"again", totals.again},
                                                                  {"answered", totals.answered},
                                                                  {"late", totals.late},
                                                                  {"refused", totals.refused},
                                                                  {"connections", totals.connections},
                                                                  {"textBytes", totals.textBytes},
                                                                  {"payloadBytes", totals.payloadBytes},
                                                                  {"configurations", totals.configurations}};
        for (const auto& [name, value] : counters) {
            out[name] = static_cast<kyo::Json::UInt64>(value);
        }
        auto& sorted = totals.latencies;
        std::sort(sorted.begin(), sorted.end());
        for (const int percent : {50, 99, 100}) {
            out["latencyMs"][std::to_string(percent)] =
                sorted.empty() ? 0u : sorted[(sorted.size() - 1) * static_cast<std::size_t>(percent) / 100];
        }
        return out;
    }

    Value numbers() const {
        Value out(kyo::Json::arrayValue);
        for (const auto& vehicle : m_vehicles) {
            Value& one = out.append(Value(kyo::Json::objectValue));
            one["made"] = static_cast<kyo::Json::UInt64>(vehicle->made());
            one["withoutResult"] = Value(kyo::Json::arrayValue);
            for (const std::uint64_t number : vehicle->withoutResult()) {
                one["withoutResult"].append(static_cast<kyo::Json::UInt64>(number));
            }
        }
        return out;
    }

    Fleet m_fleet;
    std::vector<std::unique_ptr<Vehicle>> m_vehicles;
    std::string m_line;
};

}  // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() != 5) {
        std::cerr << "bench_fleet ENVELOPES PORT VEHICLES PERIOD_MS TIMEOUT_MS\n";
        return 2;
    }
    mosquitto_lib_init();
    Program(arguments).run();
    return 0;
} catch (const std::exception& error) {
    std::cerr << "bench_fleet: " << error.what() << '\n';
    return 1;
}
