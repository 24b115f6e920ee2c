#pragma once
/// Real sockets on the loopback network, or with IPv6. Addresses and ports depend on the process id, so that
/// concurrent runs do not disturb each other.
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <tuple>

#include "com/Proxy.h"
#include "com/Skeleton.h"
#include "someip/Counters.h"
#include "someip/Runtime.h"
#include "someip/TcpSocket.h"
#include "tests/unit/platform/linux/someip/Reading.h"
#include "tests/unit/platform/linux/someip/SdBench.h"

namespace vlmTest {

/// The first half of the addresses, "fd00::" or "fe80::", for a run in the namespace of
/// tests/support/with-ipv6; empty for the loopback's IPv4.
inline const std::string& ipv6Prefix() {
    static const std::string prefix = [] {
        const char* const given = std::getenv("VLM_TEST_IPV6_PREFIX");
        return std::string(given == nullptr ? "" : given);
    }();
    return prefix;
}

inline std::string addressText(int host) {
    if (!ipv6Prefix().empty()) {
        return ipv6Prefix() + std::to_string(host) + (ipv6Prefix() == "fe80::" ? "%v0" : "");
    }
    return "127." + std::to_string(64 + ::getpid() % 128) + "." + std::to_string((::getpid() / 128) % 250) +
           "." + std::to_string(host);
}
inline someip::Address addressFrom(const std::string& text) {
    someip::Address address;
    EXPECT_TRUE(someip::parseAddress(text, address)) << text;
    return address;
}
inline someip::Address addressOf(int host) {
    return addressFrom(addressText(host));
}
inline std::uint16_t discoveryPort() {
    return static_cast<std::uint16_t>(20000 + ::getpid() % 10000);
}

inline std::string multicastText() {
    if (!ipv6Prefix().empty()) {
        return (ipv6Prefix() == "fe80::" ? "ff02::7:" : "ff05::7:") + std::to_string(::getpid() % 10000);
    }
    return "239.255." + std::to_string(::getpid() % 250) + "." + std::to_string(1 + (::getpid() / 250) % 250);
}
/// Of service discovery: the loopback's broadcast address, or a group.
inline someip::Endpoint discoveryGroup() {
    return {ipv6Prefix().empty() ? someip::Address(0x7FFFFFFF)
                                 : addressFrom("ff02::6").on(addressOf(1).interface()),
            discoveryPort()};
}

inline machine::SomeIpSettings settingsFor(int host) {
    machine::SomeIpSettings settings;
    settings.address = addressText(host);
    settings.discovery.port = discoveryPort();
    if (!ipv6Prefix().empty()) {
        settings.network = ipv6Prefix() + "/64";
        settings.discovery.group = "ff02::6";
    }
    return settings;
}

/// Ends it like a killed process, without a message on the wire.
inline void kill(someip::Runtime& runtime) {
    runtime.setSilent(true);
    runtime.stop();
    runtime.setSilent(false);
}

inline Reading numbered(int number) {
    Reading reading;
    reading.offset = number;
    return reading;
}

/// A socket; without one the test fails.
inline std::unique_ptr<someip::UdpSocket> openSocket(const someip::Endpoint& at,
                                                     const someip::UdpSocket::Options& options = {}) {
    std::string error;
    auto socket = someip::UdpSocket::open(at, options, error);
    EXPECT_NE(socket, nullptr) << error;
    return socket;
}

/// A connection from that host, which comes or fails as expected.
inline std::shared_ptr<someip::TcpSocket> connectOverTcp(const someip::Address& from,
                                                         const someip::Endpoint& to, int expected = 0) {
    std::string error;
    auto connection = someip::TcpSocket::connect(from, to, error);
    EXPECT_NE(connection, nullptr) << error;
    int state = EINPROGRESS;
    EXPECT_TRUE(eventually([&] { return (state = connection->state()) != EINPROGRESS; }));
    EXPECT_EQ(state, expected);
    return connection;
}

/// A client of the service and the samples that it received.
class MeterClient {
  public:
    explicit MeterClient(someip::Runtime& middleware) : runtime(middleware) {}

    /// Subscribes the event with `handler`, or else keeps what comes.
    bool subscribe(std::function<void(std::vector<Reading>)> handler = nullptr) {
        proxy = std::make_unique<ac::com::ProxyBase>(
            kMeter, ac::com::ServiceHandle{kMeter.serviceId, 1, kMeter.majorVersion}, runtime);
        readings = std::make_unique<ac::com::ProxyEvent<Reading>>(*proxy, kReadings);
        return readings->Subscribe(handler ? std::move(handler) : [this](std::vector<Reading> samples) {
            std::ranges::for_each(samples, [this](Reading& sample) { got.add(std::move(sample)); });
        });
    }
    /// The same once the service is found, by polling like an adapter, until it is subscribed.
    bool connect(std::function<void(std::vector<Reading>)> handler = nullptr) {
        return eventually([&] { return !ac::com::findService(kMeter, "*", runtime).empty(); }) &&
               subscribe(std::move(handler)) && subscribed();
    }
    bool subscribed() const {
        return eventually([&] { return readings->subscribed(); });
    }
    std::size_t count() const { return got.size(); }
    std::vector<std::int64_t> numbers() const {
        std::vector<std::int64_t> all;
        for (const auto& one : got.all()) {
            all.push_back(one.offset.value_or(-1));
        }
        return all;
    }

    someip::Runtime& runtime;
    SharedList<Reading> got;
    // Last, so that they are destroyed before the members that the handler uses.
    std::unique_ptr<ac::com::ProxyBase> proxy;
    std::unique_ptr<ac::com::ProxyEvent<Reading>> readings;
};

/// A server of the service.
struct MeterServer {
    explicit MeterServer(someip::Runtime& runtime, std::uint16_t instance = 1)
        : base(kMeter, instance, runtime) {}
    /// Sends samples with that number until the client receives one.
    bool sendUntilReceived(const MeterClient& client, int number) {
        const auto before = client.count();
        return eventually([&] { return client.count() > before; },
                          [&] { readings.Send({numbered(number)}); });
    }

    ac::com::SkeletonBase base;
    ac::com::SkeletonEvent<Reading> readings{base, kReadings};
    ac::com::SkeletonEvent<Reading> alarms{base, kAlarms};
};

/// A client and a server like two processes: each with its own middleware and address.
struct ClientAndServer : Test {
    void startBoth(const machine::SomeIpSettings& forServer = settingsFor(2),
                   const machine::SomeIpSettings& forClient = settingsFor(1)) {
        ASSERT_TRUE(clientSide.start(forClient, false));
        ASSERT_TRUE(serverSide.start(forServer, true));
        ASSERT_TRUE(clientSide.networkIsUp());
        ASSERT_TRUE(serverSide.networkIsUp());
        ASSERT_TRUE(server.base.OfferService());
    }
    void connect(const machine::SomeIpSettings& forServer = settingsFor(2)) {
        startBoth(forServer);
        ASSERT_TRUE(client.connect());
    }
    /// Sends many samples and then a large one; they must arrive as they were sent and in order.
    void expectSamples() {
        std::vector<std::int64_t> expected;
        for (int i = 0; i < 500; ++i) {
            ASSERT_TRUE(server.readings.Send({numbered(2 * i), numbered(2 * i + 1)}));
            expected.insert(expected.end(), {2 * i, 2 * i + 1});
        }
        ASSERT_TRUE(eventually([&] { return client.count() >= expected.size(); }));
        EXPECT_EQ(client.numbers(), expected);
        auto large = fullReading();
        large.text = std::string(200000, 'x');
        ASSERT_TRUE(server.readings.Send({large, Reading{}}));
        ASSERT_TRUE(eventually([&] { return client.count() == 1002; }));
        EXPECT_EQ(client.got.all()[1000], large);
        EXPECT_EQ(client.got.all()[1001], Reading{});
    }
    /// Kills the server three times and the client once; each time samples must arrive again.
    void killBothSides(const machine::SomeIpSettings& forServer) {
        for (int life = 1; life <= 3; ++life) {
            kill(serverSide);
            ASSERT_TRUE(serverSide.start(forServer, true));
            ASSERT_TRUE(server.sendUntilReceived(client, life));
        }
        kill(clientSide);
        ASSERT_TRUE(clientSide.start(settingsFor(1), false));
        ASSERT_TRUE(server.sendUntilReceived(client, 4));
        ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }))
            << "its former life is gone";
    }

    LogCapture log{7};
    someip::Runtime clientSide;
    someip::Runtime serverSide;
    MeterServer server{serverSide};
    MeterClient client{clientSide};
};

/// A device of plain sockets: the test writes and reads its messages.
class PlainDevice {
  public:
    explicit PlainDevice(int host) {
        const auto own = addressOf(host);
        const bool ipv6 = own.isIpv6();
        const auto interface = ipv6 ? own : someip::Address();
        discovery = openSocket({own, discoveryPort()}, {0, false, !ipv6, interface, false});
        group = openSocket(discoveryGroup(), {0, true, !ipv6, interface, ipv6});
        events = openSocket({own, 0}, {0, false, false, own, false});
    }

    void sendDiscovery(const someip::SdEntry& entry, const someip::Endpoint* to = nullptr) {
        (to != nullptr ? outbox.to(*to) : outbox.multicast()).add(entry);
        for (const auto& datagram : outbox.take()) {
            discovery->sendTo(datagram.to.value_or(group->endpoint()), datagram.bytes, true);
        }
    }
    someip::SdEntry offer(std::uint32_t ttl = 3) const {
        auto entry = SdPeer::entry(someip::SdEntryType::Offer, kMeter.serviceId, ttl);
        entry.unicast = {events->endpoint()};
        return entry;
    }
    someip::SdEntry subscription(std::uint16_t service, std::uint16_t eventgroup,
                                 std::uint8_t counter = 0) const {
        auto entry = SdPeer(events->endpoint()).subscribe(service, eventgroup);
        entry.unicast = {events->endpoint()};
        entry.counter = counter;
        return entry;
    }
    /// Subscribes over a new connection to that endpoint of the peer that await() has heard.
    std::shared_ptr<someip::TcpSocket> subscribeOverTcp(const someip::Endpoint& to) {
        auto connection = connectOverTcp(discovery->endpoint().address, to);
        auto entry = subscription(kMeter.serviceId, kReadings.eventgroupId);
        entry.unicast = {connection->local()};
        sendDiscovery(entry, &from);
        return connection;
    }
    /// Answers the subscription that await() has found.
    void answer(std::uint32_t ttl, std::vector<someip::Endpoint> multicast = {}) {
        auto entry = found;
        entry.type = someip::SdEntryType::SubscribeAck;
        entry.ttl = ttl;
        entry.unicast.clear();
        entry.multicast = std::move(multicast);
        sendDiscovery(entry, &from);
    }
    /// Waits for the next discovery entry of that type, or for one that ends it, ignoring others.
    bool await(someip::SdEntryType type, bool ending = false) {
        const auto isFound = [&] {
            someip::SdMessage message;
            readDiscovery(foundIn, message);
            const auto entry = std::ranges::find_if(message.entries, [&](const someip::SdEntry& one) {
                return one.type == type && one.service == kMeter.serviceId && (one.ttl == 0) == ending;
            });
            if (entry == message.entries.end()) {
                return false;
            }
            found = *entry;
            for (auto& endpoint : found.unicast) {
                endpoint.address = endpoint.address.on(from.address.interface());
            }
            return true;
        };
        return eventually([&] {
            for (const auto* socket : {discovery.get(), group.get()}) {
                receive(*socket, [this](const someip::Endpoint& sender, auto bytes) {
                    waiting.emplace_back(sender, Bytes(bytes.begin(), bytes.end()));
                });
            }
            while (!waiting.empty()) {
                std::tie(from, foundIn) = std::move(waiting.front());
                waiting.pop_front();
                if (isFound()) {
                    return true;
                }
            }
            return false;
        });
    }
    /// Calls `take(from, bytes)` for each datagram at that socket.
    template <typename Take>
    void receive(const someip::UdpSocket& socket, Take&& take) {
        const auto count = batch.receive(socket);
        for (std::size_t i = 0; i < count; ++i) {
            take(batch.from(i), batch.bytes(i));
        }
    }
    /// A notification of `readings` with one sample.
    Bytes notification(int number, std::uint16_t session) const {
        Bytes payload;
        someip::encodeSamples(std::vector{numbered(number)}, payload);
        return messageOf(payload, session);
    }

    std::unique_ptr<someip::UdpSocket> discovery;
    std::unique_ptr<someip::UdpSocket> group;
    std::unique_ptr<someip::UdpSocket> events;
    someip::SdOutbox outbox;
    someip::DatagramBatch batch;
    someip::SdEntry found;  ///< by await(), with its message and the sender
    Bytes foundIn;
    someip::Endpoint from;
    std::deque<std::pair<someip::Endpoint, Bytes>> waiting;  ///< discovery that await() has not read
};

}  // namespace vlmTest
