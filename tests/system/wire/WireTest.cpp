/// The output of our sockets, read by an independent analyser.

#include "Analyser.h"
#include "tests/integration/someip/Bench.h"

using namespace vlmTest;

namespace {

/// Values of a frame by the analyser's names.
using Fields = std::map<std::string, std::string>;

Fields operator+(Fields left, Fields right) {
    right.merge(left);
    return right;
}

struct Wire : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(runtime.start(settingsFor(1), true)); }
    /// Captures the next discovery message with such an entry.
    void capture(someip::SdEntryType type, bool ending = false) {
        ASSERT_TRUE(device.await(type, ending));
        analyser.add(device.foundIn);
    }
    void subscribeDevice(std::uint16_t eventgroup, std::uint8_t counter = 0) {
        device.sendDiscovery(device.subscription(kMeter.serviceId, eventgroup, counter), &discovery);
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
                EXPECT_EQ(frames[i][name].show, value) << name;
            }
        }
    }
    Fields ownEndpoint() const {
        const auto endpoint = runtime.eventEndpoint();
        return {{endpoint.address.isIpv6() ? "someipsd.option.ipv6address" : "someipsd.option.ipv4address",
                 someip::toText(endpoint.address)},
                {"someipsd.option.port", std::to_string(endpoint.port)},
                {"someipsd.option.proto", "17"}};
    }

    const LogCapture log{5};
    someip::Runtime runtime;
    const someip::Endpoint discovery{addressOf(1), discoveryPort()};
    PlainDevice device{2};
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

/// One that takes several segments. Returns its payload.
std::vector<std::uint8_t> sendLargeSample(MeterServer& server) {
    auto sample = fullReading();
    sample.text = std::string(5000, 'x');
    server.readings.Send({sample});
    std::vector<std::uint8_t> payload;
    someip::encodeSamples(std::vector{sample}, payload);
    return payload;
}

}  // namespace

TEST_F(Wire, TheClientsSideOfDiscovery) {
    MeterClient client(runtime);
    client.subscribe();
    capture(someip::SdEntryType::Find);
    device.sendDiscovery(device.offer());
    capture(someip::SdEntryType::Subscribe);
    client.readings->Unsubscribe();
    capture(someip::SdEntryType::Subscribe, true);

    const auto find =
        discoveryWith({{"someipsd.entry.type", "0x00"}, {"someipsd.entry.minorver", "4294967295"}});
    const auto subscribe = discoveryWith({{"someipsd.entry.type", "0x06"},
                                          {"someipsd.entry.ttl", "3"},
                                          {"someipsd.entry.eventgroupid", "0x0001"}}) +
                           ownEndpoint();
    expectFrames({find, subscribe, subscribe + Fields{{"someipsd.entry.ttl", "0"}}});
}

TEST_F(Wire, TheServersSideAndANotificationAndOneInSegments) {
    MeterServer server(runtime);
    server.base.OfferService();
    capture(someip::SdEntryType::Offer);
    subscribeDevice(kReadings.eventgroupId, 9);
    capture(someip::SdEntryType::SubscribeAck);
    server.readings.Send({numbered(1)});
    const auto payload = sendLargeSample(server);
    ASSERT_TRUE(eventually([&] {
        device.receive(*device.events, [&](auto&&, auto bytes) { analyser.add(bytes); });
        return analyser.count() >= 7;
    }));
    subscribeDevice(0x0077);
    capture(someip::SdEntryType::SubscribeAck, true);
    server.base.StopOfferService();
    capture(someip::SdEntryType::Offer, true);

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
    const auto event = kHeader + Fields{{"someip.serviceid", "0x4101"}, {"someip.methodid", "0x8001"}};
    const auto segment = event + Fields{{"someip.sessionid", "0x0002"}, {"someip.messagetype", "0x22"}};
    expectFrames({offer, acknowledgement,
                  event + Fields{{"someip.sessionid", "0x0001"},
                                 {"someip.messagetype", "0x02"},
                                 {"someip.length", "26"},
                                 {"someip.payload", "00:00:00:0e:00:00:00:0a:30:09:00:00:00:00:00:00:00:01"}},
                  segment + Fields{{"someip.tp.offset", "0"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "1392"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "2784"}, {"someip.tp.flags.more_segments", "1"}},
                  segment + Fields{{"someip.tp.offset", "4176"},
                                   {"someip.tp.flags.more_segments", "0"},
                                   {"someip.tp.reassembled.length", std::to_string(payload.size())},
                                   {"someip.tp.reassembled.data", hexText(payload, ':')}},
                  refusal, offer + Fields{{"someipsd.entry.ttl", "0"}}});
}

TEST_F(Wire, EventsOverTcp) {
    runtime.stop();
    auto settings = settingsFor(1);
    settings.eventsOverTcp = true;
    ASSERT_TRUE(runtime.start(settings, true));
    MeterServer server(runtime);
    server.base.OfferService();
    ASSERT_TRUE(device.await(someip::SdEntryType::Offer));
    const auto connection = device.subscribeOverTcp(*device.found.over(someip::Protocol::Tcp));
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    server.readings.Send({numbered(1)});
    const auto payload = sendLargeSample(server);
    std::vector<std::uint8_t> stream(3 * someip::kHeaderSize + 18 + payload.size());
    std::span missing(stream);
    ASSERT_TRUE(eventually([&] {
        missing =
            missing.subspan(static_cast<std::size_t>(std::max<ssize_t>(connection->receive(missing), 0)));
        return missing.empty();
    }));
    analyser.add(stream);
    expectFrames({Fields{{"someip.messageid", "0xffff8000 0x41018001 0x41018001"},
                         {"someip.length", "8 26 " + std::to_string(payload.size() + 8)}}});
}
