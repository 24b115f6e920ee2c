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
        analyser.add(device.from, device.discovery->endpoint(), device.foundIn);
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
                EXPECT_THAT(frames[i][name], ElementsAre(Field(&AnalysedElement::show, value))) << name;
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

/// A sample that takes several segments, and its payload.
std::pair<Reading, std::vector<std::uint8_t>> largeSample() {
    auto sample = fullReading();
    sample.text = std::string(5000, 'x');
    std::vector<std::uint8_t> payload;
    someip::encodeSamples(std::vector{sample}, payload);
    return {sample, payload};
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

TEST_F(Wire, TheServersSideOfDiscovery) {
    MeterServer server(runtime);
    server.base.OfferService();
    capture(someip::SdEntryType::Offer);
    subscribeDevice(kReadings.eventgroupId, 9);
    capture(someip::SdEntryType::SubscribeAck);
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
    expectFrames({offer, acknowledgement, refusal, offer + Fields{{"someipsd.entry.ttl", "0"}}});
}

TEST_F(Wire, ANotificationAndOneInSegments) {
    MeterServer server(runtime);
    server.base.OfferService();
    capture(someip::SdEntryType::Offer);
    subscribeDevice(kReadings.eventgroupId);
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    analyser.clear();

    const auto [large, payload] = largeSample();
    server.readings.Send({numbered(1)});
    server.readings.Send({large});
    ASSERT_TRUE(eventually([&] {
        device.receive(*device.events, [&](const someip::Endpoint& from, auto bytes) {
            analyser.add(from, device.events->endpoint(), bytes);
        });
        return analyser.count() >= 5;
    }));
    const auto event = kHeader + Fields{{"someip.serviceid", "0x4101"}, {"someip.methodid", "0x8001"}};
    const auto segment = event + Fields{{"someip.sessionid", "0x0002"}, {"someip.messagetype", "0x22"}};
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
    capture(someip::SdEntryType::Offer);
    const auto offered = *device.found.over(someip::Protocol::Tcp);
    const auto connection = device.subscribeOverTcp(offered);
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));

    const auto [large, payload] = largeSample();
    server.readings.Send({numbered(1)});
    server.readings.Send({large});
    std::size_t missing = 2 * someip::kHeaderSize + 18 + someip::kHeaderSize + payload.size();
    std::uint8_t piece[1000];  // of the stream's segments only the first begins with a message
    ASSERT_TRUE(eventually([&] {
        if (const auto size = connection->receive(piece); size > 0) {
            analyser.add(offered, connection->local(), std::span(piece, static_cast<std::size_t>(size)));
            missing -= static_cast<std::size_t>(size);
        }
        return missing == 0;
    }));
    std::vector<std::string> found;
    for (auto& frame : analyser.frames()) {
        EXPECT_FALSE(frame.contains("_ws.malformed"));
        for (std::size_t i = 0; i < frame["someip.messageid"].size(); ++i) {
            found.push_back(frame["someip.messageid"][i].show + " " + frame["someip.length"][i].show);
        }
    }
    EXPECT_THAT(found, ElementsAre(StartsWith("0xffff8100"), "0xffff8000 8", "0x41018001 26",
                                   "0x41018001 " + std::to_string(payload.size() + 8)));
}
