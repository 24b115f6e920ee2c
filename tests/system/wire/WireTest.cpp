/// What our own sockets send, as an independent analyser reads it.

#include "Analyser.h"
#include "tests/integration/someip/Bench.h"

using namespace vlmTest;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using Values = std::vector<std::string>;

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

struct Wire : ::testing::Test {
    void SetUp() override {
        ASSERT_TRUE(runtime.start(settingsFor(1), true));
        device = std::make_unique<PlainDevice>(2);
    }
    /// The next discovery message with such an entry, captured.
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
    /// Waits for datagrams at the device's event socket, and captures them.
    bool captureEvents(std::size_t datagrams) {
        return eventually([&] {
            const auto count = device->batch.receive(*device->events);
            for (std::size_t i = 0; i < count; ++i) {
                analyser.add(device->batch.from(i), device->events->endpoint(), device->batch.bytes(i));
            }
            return analyser.count() >= datagrams;
        });
    }
    void subscribeDevice(std::uint16_t eventgroup, std::uint8_t counter = 0) {
        auto entry = device->offer();
        entry.type = someip::SdEntryType::Subscribe;
        entry.eventgroup = eventgroup;
        entry.counter = counter;
        device->sendDiscovery(entry, &discovery);
    }
    static void expectClean(const std::vector<AnalysedFrame>& frames) {
        for (const auto& frame : frames) {
            EXPECT_FALSE(frame.contains("_ws.malformed"));
            EXPECT_FALSE(frame.contains("_ws.expert.message")) << frame.at("_ws.expert.message").front();
        }
    }

    const LogCapture log{5};
    someip::Runtime runtime;
    const someip::Endpoint discovery{addressOf(1), discoveryPort()};
    std::unique_ptr<PlainDevice> device;
    Analyser analyser;
};

const Values kEntryFields = {"someip.serviceid",         "someip.methodid",
                             "someip.clientid",          "someip.protoversion",
                             "someip.interfaceversion",  "someip.messagetype",
                             "someip.returncode",        "someipsd.flags.reboot",
                             "someipsd.flags.unicast",   "someipsd.entry.type",
                             "someipsd.entry.serviceid", "someipsd.entry.instanceid",
                             "someipsd.entry.majorver",  "someipsd.entry.minorver",
                             "someipsd.entry.ttl",       "someipsd.entry.eventgroupid",
                             "someipsd.entry.counter",   "someipsd.option.ipv4address",
                             "someipsd.option.port",     "someipsd.option.proto"};

void expectDiscoveryHeader(const AnalysedFrame& frame) {
    EXPECT_EQ(frame.at("someip.serviceid"), Values{"0xffff"});
    EXPECT_EQ(frame.at("someip.methodid"), Values{"0x8100"});
    EXPECT_EQ(frame.at("someip.clientid"), Values{"0x0000"});
    EXPECT_EQ(frame.at("someip.protoversion"), Values{"0x01"});
    EXPECT_EQ(frame.at("someip.interfaceversion"), Values{"0x01"});
    EXPECT_EQ(frame.at("someip.messagetype"), Values{"0x02"});
    EXPECT_EQ(frame.at("someip.returncode"), Values{"0x00"});
    EXPECT_EQ(frame.at("someipsd.flags.reboot"), Values{"1"});
    EXPECT_EQ(frame.at("someipsd.flags.unicast"), Values{"1"});
    EXPECT_EQ(frame.at("someipsd.entry.serviceid"), Values{"0x4101"});
    EXPECT_EQ(frame.at("someipsd.entry.majorver"), Values{"1"});
}

}  // namespace

TEST_F(Wire, TheClientsSideOfDiscovery) {
    const ac::com::ProxyBase proxy(kMeter, {kMeter.serviceId, 1, kMeter.majorVersion}, runtime);
    auto owner = std::make_unique<ac::com::ProxyBase>(kMeter, proxy.handle(), runtime);
    ac::com::ProxyEvent<Reading> readings(*owner, kReadings);
    readings.Subscribe([](std::vector<Reading>) {});
    ASSERT_TRUE(capture(someip::SdEntryType::Find, false));
    device->sendDiscovery(device->offer());
    ASSERT_TRUE(capture(someip::SdEntryType::Subscribe, false));
    readings.Unsubscribe();
    ASSERT_TRUE(capture(someip::SdEntryType::Subscribe, true));

    const auto frames = analyser.fields(kEntryFields);
    ASSERT_EQ(frames.size(), 3u);
    expectClean(frames);
    for (const auto& frame : frames) {
        expectDiscoveryHeader(frame);
        EXPECT_EQ(frame.at("someipsd.entry.instanceid"), Values{"0x0001"});
    }
    EXPECT_EQ(frames[0].at("someipsd.entry.type"), Values{"0x00"});
    EXPECT_EQ(frames[0].at("someipsd.entry.minorver"), Values{"4294967295"});
    const auto own = runtime.eventEndpoint();
    for (int i = 1; i <= 2; ++i) {
        const auto& subscribe = frames[static_cast<std::size_t>(i)];
        EXPECT_EQ(subscribe.at("someipsd.entry.type"), Values{"0x06"});
        EXPECT_EQ(subscribe.at("someipsd.entry.eventgroupid"), Values{"0x0001"});
        EXPECT_EQ(subscribe.at("someipsd.entry.ttl"), Values{i == 1 ? "3" : "0"});
        EXPECT_EQ(subscribe.at("someipsd.option.ipv4address"), Values{someip::toText(own.address)});
        EXPECT_EQ(subscribe.at("someipsd.option.port"), Values{std::to_string(own.port)});
        EXPECT_EQ(subscribe.at("someipsd.option.proto"), Values{"17"});
    }
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

    const auto frames = analyser.fields(kEntryFields);
    ASSERT_EQ(frames.size(), 4u);
    expectClean(frames);
    for (const auto& frame : frames) {
        expectDiscoveryHeader(frame);
    }
    const auto own = runtime.eventEndpoint();
    for (const std::size_t offer : {0u, 3u}) {
        EXPECT_EQ(frames[offer].at("someipsd.entry.type"), Values{"0x01"});
        EXPECT_EQ(frames[offer].at("someipsd.entry.minorver"), Values{"7"});
        EXPECT_EQ(frames[offer].at("someipsd.entry.ttl"), Values{offer == 0 ? "3" : "0"});
        EXPECT_EQ(frames[offer].at("someipsd.option.ipv4address"), Values{someip::toText(own.address)});
        EXPECT_EQ(frames[offer].at("someipsd.option.port"), Values{std::to_string(own.port)});
    }
    EXPECT_EQ(frames[1].at("someipsd.entry.type"), Values{"0x07"});
    EXPECT_EQ(frames[1].at("someipsd.entry.eventgroupid"), Values{"0x0001"});
    EXPECT_EQ(frames[1].at("someipsd.entry.counter"), Values{"0x09"});
    EXPECT_EQ(frames[1].at("someipsd.entry.ttl"), Values{"3"});
    EXPECT_EQ(frames[2].at("someipsd.entry.type"), Values{"0x07"});
    EXPECT_EQ(frames[2].at("someipsd.entry.eventgroupid"), Values{"0x0077"});
    EXPECT_EQ(frames[2].at("someipsd.entry.ttl"), Values{"0"});
}

TEST_F(Wire, ManyEntriesInOneMessageAreStillWhole) {
    std::vector<std::unique_ptr<ac::com::SkeletonBase>> services;
    for (std::uint16_t i = 0; i < 100; ++i) {
        const ac::com::ServiceInterface service{"Meter", static_cast<std::uint16_t>(kMeter.serviceId + i), 1,
                                                7};
        services.push_back(std::make_unique<ac::com::SkeletonBase>(service, 1, runtime));
        services.back()->OfferService();
    }
    ASSERT_TRUE(capture(someip::SdEntryType::Offer, false));
    const auto frames = analyser.fields(kEntryFields);
    expectClean(frames);
    EXPECT_GT(frames.at(0).at("someipsd.entry.type").size(), 50u);
    EXPECT_EQ(frames.at(0).at("someipsd.option.port").size(), 1u) << "one option for all";
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
    ASSERT_TRUE(captureEvents(5));
    const auto frames = analyser.fields(
        {"someip.serviceid", "someip.methodid", "someip.length", "someip.clientid", "someip.sessionid",
         "someip.protoversion", "someip.interfaceversion", "someip.messagetype", "someip.returncode",
         "someip.payload", "someip.tp.offset", "someip.tp.flags.more_segments",
         "someip.tp.reassembled.length", "someip.tp.reassembled.data"});
    ASSERT_EQ(frames.size(), 5u);
    expectClean(frames);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto& frame = frames[i];
        EXPECT_EQ(frame.at("someip.serviceid"), Values{"0x4101"});
        EXPECT_EQ(frame.at("someip.methodid"), Values{"0x8001"});
        EXPECT_EQ(frame.at("someip.clientid"), Values{"0x0000"});
        EXPECT_EQ(frame.at("someip.sessionid"), Values{i == 0 ? "0x0001" : "0x0002"});
        EXPECT_EQ(frame.at("someip.protoversion"), Values{"0x01"});
        EXPECT_EQ(frame.at("someip.interfaceversion"), Values{"0x01"});
        EXPECT_EQ(frame.at("someip.returncode"), Values{"0x00"});
        EXPECT_EQ(frame.at("someip.messagetype"), Values{i == 0 ? "0x02" : "0x22"});
    }
    EXPECT_EQ(frames[0].at("someip.length"), Values{"26"});
    EXPECT_THAT(frames[0].at("someip.payload").front(), HasSubstr("0000000e0000000a30090000000000000001"));
    EXPECT_EQ(frames[4].at("someip.tp.offset"), Values{"4176"});
    EXPECT_EQ(frames[3].at("someip.tp.flags.more_segments"), Values{"1"});
    EXPECT_EQ(frames[4].at("someip.tp.flags.more_segments"), Values{"0"});
    std::vector<std::uint8_t> payload;
    ac::com::encodeSamples(std::vector{large}, payload);
    EXPECT_EQ(frames[4].at("someip.tp.reassembled.length"), Values{std::to_string(payload.size())});
    std::string text;
    for (const auto byte : payload) {
        text += hex(byte, 2).substr(2);
    }
    EXPECT_EQ(frames[4].at("someip.tp.reassembled.data"), Values{text});
}
