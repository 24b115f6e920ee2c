#pragma once
/// Real sockets on the loopback network. Addresses and ports follow from the process id, so that several
/// runs at once keep out of each other's way.
#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "ac/com/proxy.h"
#include "ac/com/skeleton.h"
#include "someip/Counters.h"
#include "someip/Runtime.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/someip/Reading.h"

namespace vlmTest {

inline std::string addressText(int host) {
    return "127." + std::to_string(64 + ::getpid() % 128) + "." + std::to_string((::getpid() / 128) % 250) +
           "." + std::to_string(host);
}
inline someip::Address addressOf(int host) {
    someip::Address address = 0;
    someip::parseAddress(addressText(host), address);
    return address;
}
inline std::uint16_t discoveryPort() {
    return static_cast<std::uint16_t>(20000 + ::getpid() % 10000);
}

inline std::string multicastText() {
    return "239.255." + std::to_string(::getpid() % 250) + "." + std::to_string(1 + (::getpid() / 250) % 250);
}

inline machine::SomeIpSettings settingsFor(int host) {
    machine::SomeIpSettings settings;
    settings.address = addressText(host);
    settings.discovery.port = discoveryPort();
    return settings;
}

inline Reading numbered(int number) {
    Reading reading;
    reading.offset = number;
    return reading;
}

/// A client of the service, with all that it got.
class MeterClient {
  public:
    explicit MeterClient(someip::Runtime& middleware) : runtime(middleware) {}

    /// Waits for the service, as an adapter does that asks again and again.
    bool find() {
        return eventually([&] {
            handles = ac::com::findService(kMeter, "*", runtime);
            return !handles.empty();
        });
    }
    bool connect() {
        if (!find()) {
            return false;
        }
        proxy = std::make_unique<ac::com::ProxyBase>(kMeter, handles.front(), runtime);
        readings = std::make_unique<ac::com::ProxyEvent<Reading>>(*proxy, kReadings);
        return readings->Subscribe([this](std::vector<Reading> samples) { take(std::move(samples)); });
    }
    bool subscribed() const {
        return eventually([&] { return readings->subscribed(); });
    }
    void take(std::vector<Reading> samples) {
        const std::lock_guard lock(guard);
        for (auto& sample : samples) {
            got.push_back(std::move(sample));
        }
    }
    std::size_t count() const {
        const std::lock_guard lock(guard);
        return got.size();
    }
    std::vector<std::int64_t> numbers() const {
        const std::lock_guard lock(guard);
        std::vector<std::int64_t> all;
        for (const auto& one : got) {
            all.push_back(one.offset.value_or(-1));
        }
        return all;
    }

    someip::Runtime& runtime;
    ac::com::HandleContainer handles;
    mutable std::mutex guard;
    std::vector<Reading> got;
    // Last, so that they end before what their handler uses.
    std::unique_ptr<ac::com::ProxyBase> proxy;
    std::unique_ptr<ac::com::ProxyEvent<Reading>> readings;
};

/// A server of the service.
struct MeterServer {
    explicit MeterServer(someip::Runtime& runtime) : base(kMeter, 1, runtime) {}
    /// Sends until the client has got one that is newer than what it had; that many are lost at most.
    bool sendUntilReceived(const MeterClient& client, int number) {
        const auto before = client.count();
        return eventually([&] { return client.count() > before; },
                          [&] { readings.Send({numbered(number)}); });
    }

    ac::com::SkeletonBase base;
    ac::com::SkeletonEvent<Reading> readings{base, kReadings};
    ac::com::SkeletonEvent<Reading> alarms{base, kAlarms};
};

/// A device made of plain sockets: its messages are written and read by the test.
class PlainDevice {
  public:
    explicit PlainDevice(int host) {
        std::string error;
        discovery =
            someip::UdpSocket::open({addressOf(host), discoveryPort()}, {0, false, true, 0, false}, error);
        EXPECT_NE(discovery, nullptr) << error;
        group = someip::UdpSocket::open({0x7FFFFFFF, discoveryPort()}, {0, true, true, 0, false}, error);
        EXPECT_NE(group, nullptr) << error;
        events =
            someip::UdpSocket::open({addressOf(host), 0}, {0, false, false, addressOf(host), false}, error);
        EXPECT_NE(events, nullptr) << error;
    }

    void sendDiscovery(const someip::SdEntry& entry, const someip::Endpoint* to = nullptr) {
        (to != nullptr ? outbox.to(*to) : outbox.multicast()).add(entry);
        for (const auto& datagram : outbox.take()) {
            discovery->sendTo(datagram.to.value_or(someip::Endpoint{0x7FFFFFFF, discoveryPort()}),
                              datagram.bytes, true);
        }
    }
    someip::SdEntry offer(std::uint32_t ttl = 3) const {
        someip::SdEntry entry;
        entry.type = someip::SdEntryType::Offer;
        entry.service = kMeter.serviceId;
        entry.instance = 1;
        entry.major = kMeter.majorVersion;
        entry.ttl = ttl;
        entry.unicast = {events->endpoint()};
        return entry;
    }
    void answer(const someip::SdEntry& subscription, const someip::Endpoint& to, std::uint32_t ttl,
                std::vector<someip::Endpoint> multicast = {}) {
        auto entry = subscription;
        entry.type = someip::SdEntryType::SubscribeAck;
        entry.ttl = ttl;
        entry.unicast.clear();
        entry.multicast = std::move(multicast);
        sendDiscovery(entry, &to);
    }
    /// The next entry of that type that comes to a discovery socket, and who sent it; others are passed over.
    bool await(someip::SdEntryType type, someip::SdEntry& found, someip::Endpoint& from) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd ready[] = {{discovery->fd(), POLLIN, 0}, {group->fd(), POLLIN, 0}};
            ::poll(ready, 2, 100);
            for (const auto* socket : {discovery.get(), group.get()}) {
                const auto count = batch.receive(*socket);
                for (std::size_t i = 0; i < count; ++i) {
                    seen.emplace_back(batch.bytes(i).begin(), batch.bytes(i).end());
                    someip::MessageReader messages(batch.bytes(i));
                    someip::Header header;
                    std::span<const std::uint8_t> body;
                    someip::SdMessage message;
                    std::string error;
                    if (!messages.next(header, body) || !parseSdMessage(header, body, message, error)) {
                        continue;
                    }
                    for (const auto& entry : message.entries) {
                        if (entry.type == type && entry.service == kMeter.serviceId) {
                            found = entry;
                            from = batch.from(i);
                            return true;
                        }
                    }
                }
            }
        }
        return false;
    }
    /// A notification of `readings` with one sample.
    std::vector<std::uint8_t> notification(int number, std::uint16_t session) const {
        std::vector<std::uint8_t> bytes(someip::kHeaderSize);
        ac::com::appendSamples(std::vector{numbered(number)}, bytes);
        someip::Header header;
        header.service = kMeter.serviceId;
        header.method = kReadings.eventId;
        header.session = session;
        header.interfaceVersion = kMeter.majorVersion;
        header.length = static_cast<std::uint32_t>(bytes.size() - 8);
        writeHeader(header, bytes.data());
        return bytes;
    }

    std::unique_ptr<someip::UdpSocket> discovery;
    std::unique_ptr<someip::UdpSocket> group;
    std::unique_ptr<someip::UdpSocket> events;
    someip::SdOutbox outbox;
    someip::DatagramBatch batch;
    std::vector<std::vector<std::uint8_t>> seen;
};

}  // namespace vlmTest
