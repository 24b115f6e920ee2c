/// The output of our sockets, read by an independent analyser.

#include "Analyser.h"
#include "someip/TcpSocket.h"
#include "tests/integration/someip/Bench.h"

using namespace vlmTest;

namespace {

/// Values of a frame by the analyser's names.
using Fields = std::map<std::string, std::string>;

Fields operator+(Fields left, const Fields& right) {
    for (const auto& [name, value] : right) {
        left[name] = value;
    }
    return left;
}

struct Wire : ::testing::Test {
    void SetUp() override {
        ASSERT_TRUE(runtime.start(settingsFor(1), true));
        device = std::make_unique<PlainDevice>(2);
    }
    /// Captures the next discovery message with such an entry.
    bool capture(someip::SdEntryType type, bool stopping) {
        someip::SdEntry entry;
        someip::Endpoint from;
        for (int tries = 0; tries < 20; ++tries) {
            device->seen.clear();
            if (!device->await(type, entry, from)) {
                return false;
            }
            if ((entry.ttl == 0) == stopping && from == discovery) {
                analyser.add(from, device->discovery->endpoint(), device->seen.back());
                return true;
            }
        }
        return false;
    }
    void subscribeDevice(std::uint16_t eventgroup, std::uint8_t counter = 0) {
        device->sendDiscovery(device->subscription(kMeter.serviceId, eventgroup, counter), &discovery);
    }
    /// Expects these fields in the captured datagrams, each with one value, and no complaint of the analyser.
    void expectFrames(const std::vector<Fields>& expected) const {
        auto frames = analyser.frames();
        ASSERT_EQ(frames.size(), expected.size());
        for (std::size_t i = 0; i < frames.size(); ++i) {
            SCOPED_TRACE("frame " + std::to_string(i));
            EXPECT_FALSE(frames[i].contains("_ws.malformed"));
            EXPECT_FALSE(frames[i].contains("_ws.expert.message"));
            for (const auto& [name, value] : expected[i]) {
                ASSERT_EQ(frames[i][name].size(), 1u) << name;
                EXPECT_EQ(frames[i][name][0].show, value) << name;
            }
        }
    }
    Fields ownEndpoint() const { return optionFields(runtime.eventEndpoint()); }
    static Fields optionFields(const someip::Endpoint& endpoint) {
        return {{endpoint.address.isIpv6() ? "someipsd.option.ipv6address" : "someipsd.option.ipv4address",
                 someip::toText(endpoint.address)},
                {"someipsd.option.port", std::to_string(endpoint.port)},
                {"someipsd.option.proto", "17"}};
    }

    const LogCapture log{5};
    someip::Runtime runtime;
    const someip::Endpoint discovery{addressOf(1), discoveryPort()};
    std::unique_ptr<PlainDevice> device;
    Analyser analyser;
};

const Fields kHeader{{"someip.clientid", "0x0000"},
                     {"someip.protoversion", "0x01"},
                     {"someip.interfaceversion", "0x01"},
                     {"someip.returncode", "0x00"}};

Fields discoveryWith(const Fields& more) {
    return kHeader + Fields{{"someip.serviceid", "0xffff"},          {"someip.methodid", "0x8100"},
                            {"someip.messagetype", "0x02"},          {"someipsd.flags.reboot", "1"},
                            {"someipsd.flags.unicast", "1"},         {"someipsd.entry.serviceid", "0x4101"},
                            {"someipsd.entry.instanceid", "0x0001"}, {"someipsd.entry.majorver", "1"}} +
           more;
}

}  // namespace

TEST_F(Wire, TheClientsSideOfDiscovery) {
    MeterClient client(runtime);
    client.subscribe();
    ASSERT_TRUE(capture(someip::SdEntryType::Find, false));
    device->sendDiscovery(device->offer());
    ASSERT_TRUE(capture(someip::SdEntryType::Subscribe, false));
    client.readings->Unsubscribe();
    ASSERT_TRUE(capture(someip::SdEntryType::Subscribe, true));

    const auto find =
        discoveryWith({{"someipsd.entry.type", "0x00"}, {"someipsd.entry.minorver", "4294967295"}});
    const auto subscribe = discoveryWith({{"someipsd.entry.type", "0x06"},
                                          {"someipsd.entry.ttl", "3"},
                                          {"someipsd.entry.eventgroupid", "0x0001"}}) +
                           ownEndpoint();
    expectFrames({find, subscribe, subscribe + Fields{{"someipsd.entry.ttl", "0"}}});
}

TEST_F(Wire, TheServersSideOfDiscovery) {
    MeterServer server(runtime);
    server.base.OfferService();
    ASSERT_TRUE(capture(someip::SdEntryType::Offer, false));
    subscribeDevice(kReadings.eventgroupId, 9);
    ASSERT_TRUE(capture(someip::SdEntryType::SubscribeAck, false));
    subscribeDevice(0x0077);
    ASSERT_TRUE(capture(someip::SdEntryType::SubscribeAck, true));
    server.base.StopOfferService();
    ASSERT_TRUE(capture(someip::SdEntryType::Offer, true));

    const auto offer = discoveryWith({{"someipsd.entry.type", "0x01"},
                                      {"someipsd.entry.ttl", "3"},
                                      {"someipsd.entry.minorver", "7"}}) +
                       ownEndpoint();
    const auto acknowledgement = discoveryWith({{"someipsd.entry.type", "0x07"},
                                                {"someipsd.entry.ttl", "3"},
                                                {"someipsd.entry.eventgroupid", "0x0001"},
                                                {"someipsd.entry.counter", "0x09"}});
    const auto refusal = discoveryWith({{"someipsd.entry.type", "0x07"},
                                        {"someipsd.entry.ttl", "0"},
                                        {"someipsd.entry.eventgroupid", "0x0077"}});
    expectFrames({offer, acknowledgement, refusal, offer + Fields{{"someipsd.entry.ttl", "0"}}});
}

TEST_F(Wire, AMulticastOption) {
    const someip::Endpoint group{addressFrom(multicastText()), 30491};
    auto acknowledgement = SdPeer::acknowledge(kMeter.serviceId, 1);
    acknowledgement.multicast = {group};
    someip::SdOutbox outbox;
    outbox.to(discovery).add(acknowledgement);
    analyser.add(device->discovery->endpoint(), discovery, outbox.take().at(0).bytes);
    expectFrames({discoveryWith({{"someipsd.entry.type", "0x07"},
                                 {"someipsd.option.type", group.address.isIpv6() ? "22" : "20"}}) +
                  optionFields(group)});
}

TEST_F(Wire, ANotificationAndOneInSegments) {
    MeterServer server(runtime);
    server.base.OfferService();
    ASSERT_TRUE(capture(someip::SdEntryType::Offer, false));
    subscribeDevice(kReadings.eventgroupId);
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    analyser.clear();

    server.readings.Send({numbered(1)});
    auto large = fullReading();
    large.text = std::string(5000, 'x');
    server.readings.Send({large});
    ASSERT_TRUE(eventually([&] {
        device->receiveEvents([&](const someip::Endpoint& from, auto bytes) {
            analyser.add(from, device->events->endpoint(), bytes);
        });
        return analyser.count() >= 5;
    }));
    const auto event = kHeader + Fields{{"someip.serviceid", "0x4101"}, {"someip.methodid", "0x8001"}};
    const auto segment = event + Fields{{"someip.sessionid", "0x0002"}, {"someip.messagetype", "0x22"}};
    std::vector<std::uint8_t> payload;
    someip::encodeSamples(std::vector{large}, payload);
    expectFrames({event + Fields{{"someip.sessionid", "0x0001"},
                                 {"someip.messagetype", "0x02"},
                                 {"someip.length", "26"},
                                 {"someip.payload", "00:00:00:0e:00:00:00:0a:30:09:00:00:00:00:00:00:00:01"}},
                  segment + Fields{{"someip.tp.offset", "0"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "1392"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "2784"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "4176"},
                                   {"someip.tp.flags.more_segments", "0"},
                                   {"someip.tp.reassembled.length", std::to_string(payload.size())},
                                   {"someip.tp.reassembled.data", hexText(payload, ':')}}});
}

TEST_F(Wire, EventsOverTcp) {
    runtime.stop();
    auto settings = settingsFor(1);
    settings.eventsOverTcp = true;
    ASSERT_TRUE(runtime.start(settings, true));
    MeterServer server(runtime);
    server.base.OfferService();
    someip::SdEntry offer;
    someip::Endpoint from;
    ASSERT_TRUE(capture(someip::SdEntryType::Offer, false));
    ASSERT_TRUE(device->await(someip::SdEntryType::Offer, offer, from));
    ASSERT_EQ(offer.unicast.size(), 1u);
    std::string error;
    const auto connection = someip::TcpSocket::connect(addressOf(2), offer.unicast[0], error);
    ASSERT_NE(connection, nullptr) << error;
    ASSERT_TRUE(eventually([&] { return connection->state() == 0; }));
    auto subscription = device->subscription(kMeter.serviceId, kReadings.eventgroupId);
    subscription.unicast = {connection->local()};
    device->sendDiscovery(subscription, &discovery);
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));

    auto large = fullReading();
    large.text = std::string(5000, 'x');
    server.readings.Send({numbered(1)});
    server.readings.Send({large});
    std::size_t expected = 2 * someip::kHeaderSize + 18;  // the magic cookie, and the first event
    std::vector<std::uint8_t> payload;
    someip::encodeSamples(std::vector{large}, payload);
    expected += someip::kHeaderSize + payload.size();
    std::vector<std::uint8_t> received;
    std::uint8_t piece[1000];  // no segment of the stream begins with a message, but the first
    ASSERT_TRUE(eventually([&] {
        const auto size = connection->receive(piece);
        if (size > 0) {
            analyser.add(offer.unicast[0], connection->local(),
                         std::span(piece).first(static_cast<std::size_t>(size)));
            received.insert(received.end(), piece, piece + size);
        }
        return received.size() >= expected;
    }));
    EXPECT_EQ(received.size(), expected);
    std::vector<std::string> found;
    auto frames = analyser.frames();
    for (auto& frame : frames) {
        EXPECT_FALSE(frame.contains("_ws.malformed"));
        for (std::size_t i = 0; i < frame["someip.messageid"].size(); ++i) {
            found.push_back(frame["someip.messageid"][i].show + " " + frame["someip.length"][i].show);
        }
    }
    EXPECT_EQ(frames.at(0)["someipsd.option.proto"].at(0).show, "6");
    EXPECT_EQ(frames.at(0)["someipsd.option.port"].at(0).show, std::to_string(offer.unicast[0].port));
    EXPECT_THAT(found, ::testing::ElementsAre("0xffff8100 " + frames.at(0)["someip.length"].at(0).show,
                                              "0xffff8000 8", "0x41018001 26",
                                              "0x41018001 " + std::to_string(payload.size() + 8)));
}
