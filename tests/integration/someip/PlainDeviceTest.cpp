/// The client with a device of plain sockets, correct or faulty.
#include "Bench.h"

using namespace vlmTest;

namespace {

struct DeviceTalk : ClientAndServer {
    void SetUp() override {
        ASSERT_TRUE(clientSide.start(settingsFor(1), false));
        client.subscribe();
    }
    void offer() {
        device.sendDiscovery(device.offer());
        ASSERT_TRUE(device.await(someip::SdEntryType::Subscribe));
        receiver = device.found.unicast.at(0);
    }
    void sendEvent(int number, std::uint16_t session) {
        device.events->sendTo(receiver, device.notification(number, session), true);
    }

    PlainDevice device{2};
    someip::Endpoint receiver;
};

}  // namespace

TEST_F(DeviceTalk, EventsMayOvertakeTheAcknowledgementAndTheEndIsSent) {
    offer();
    EXPECT_EQ(receiver, clientSide.eventEndpoint());
    sendEvent(1, 1);
    ASSERT_TRUE(eventually([&] { return client.count() == 1; }));
    device.answer(3);
    sendEvent(2, 2);
    ASSERT_TRUE(eventually([&] { return client.count() == 2; }));
    EXPECT_THAT(client.numbers(), ElementsAre(1, 2));
    clientSide.stop();
    EXPECT_TRUE(device.await(someip::SdEntryType::Subscribe, true));
}

TEST_F(DeviceTalk, ARefusedSubscriptionIsLoggedOnceAndAcceptedLater) {
    for (int refusal = 0; refusal < 2; ++refusal) {
        device.sendDiscovery(device.offer(60));
        ASSERT_TRUE(device.await(someip::SdEntryType::Subscribe));
        device.answer(0);
    }
    ASSERT_TRUE(log.waitFor("subscription refused by the service", 2));
    EXPECT_FALSE(client.readings->subscribed());
    EXPECT_EQ(log.messages(3).size(), 1u);
    ASSERT_TRUE(device.await(someip::SdEntryType::Subscribe));
    device.answer(60);
    EXPECT_TRUE(client.subscribed());
}

TEST_F(DeviceTalk, ServiceDiscoveryFromOutsideTheNetworkIsNotHeard) {
    clientSide.stop();
    auto settings = settingsFor(1);
    settings.network = ipv6Prefix().empty() ? addressText(1) + "/32" : ipv6Prefix() + "1/128";
    ASSERT_TRUE(clientSide.start(settings, false));
    auto& foreign = someip::counters().sdForeign;
    const auto before = foreign.value();
    ASSERT_TRUE(eventually([&] { return foreign.value() >= before + 2; },
                           [&] { device.sendDiscovery(device.offer()); }));
    EXPECT_TRUE(ac::com::findService(kMeter, "*", clientSide).empty());
    EXPECT_EQ(log.count(3, log.messages(3).at(0)), 1u);
}

TEST_F(DeviceTalk, HostileDatagramsAreCountedAndTheSubscriptionLivesOn) {
    offer();
    device.answer(3);
    ASSERT_TRUE(client.subscribed());
    const auto good = device.notification(5, 1);
    const auto broken = someip::counters().malformed.value();
    const auto brokenDiscovery = someip::counters().sdMalformed.value();
    for (std::size_t size = 0; size < good.size(); ++size) {
        device.events->sendTo(receiver, {good.data(), size}, true);
        device.discovery->sendTo(device.from, {good.data(), size}, true);
    }
    device.discovery->sendTo(device.from, good, true);
    const std::vector<std::uint8_t> garbage(65507, 0xFF);
    device.events->sendTo(receiver, garbage, true);
    device.discovery->sendTo(device.from, garbage, true);
    ASSERT_TRUE(eventually([&] {
        return someip::counters().malformed.value() == broken + good.size() + 1 &&
               someip::counters().sdMalformed.value() >= brokenDiscovery + good.size();
    }));
    EXPECT_TRUE(client.readings->subscribed());
    sendEvent(1, 1);
    ASSERT_TRUE(eventually([&] { return client.count() == 1; }));
    EXPECT_LE(log.messages(3).size(), 1u) << "malformed discovery is logged once";
}

TEST_F(DeviceTalk, APeerThatAlternatesFillsNoLogAndItsUnusableOffersAreCountedAndNamed) {
    clientSide.stop();
    ASSERT_TRUE(clientSide.start(settingsFor(1), true));
    MeterServer own(clientSide, 2);
    own.base.OfferService();
    offer();
    log.clear();
    auto wish = device.subscription(kMeter.serviceId, kReadings.eventgroupId);
    wish.instance = 2;
    for (int i = 0; i < 100; ++i) {
        wish.ttl = i % 2 == 0 ? 3 : 0;
        device.sendDiscovery(wish, &device.from);
    }
    const auto reboots = someip::counters().sdReboots.value();
    const auto unusable = someip::counters().sdUnusable.value();
    for (int i = 0; i < 100; ++i) {
        device.outbox = {};
        device.sendDiscovery(device.offer());
        device.sendDiscovery(device.offer(0));
    }
    auto noPort = device.offer();
    noPort.unicast = {{noPort.unicast[0].address, 0}};
    device.sendDiscovery(noPort);
    device.sendDiscovery(noPort);
    ASSERT_TRUE(eventually([&] { return someip::counters().sdUnusable.value() == unusable + 2; }));
    EXPECT_GE(someip::counters().sdReboots.value(), reboots + 90);
    for (const char* part : {"subscribed by", "has rebooted", " found at ", " lost at "}) {
        EXPECT_THAT(log.countParts(-1, part), AllOf(testing::Ge(1), testing::Le(10))) << part;
    }
    EXPECT_LE(log.lines().size(), 60u);
    EXPECT_TRUE(log.waitFor("is ignored: its port is 0"));
    EXPECT_EQ(log.countParts(-1, "is ignored: its port is 0"), 1u);
}

// Multicast on the loopback interface: nothing leaves the machine.
TEST_F(DeviceTalk, EventsMayComeByTheMulticastGroupOfTheAcknowledgement) {
    offer();
    const someip::Endpoint group{addressFrom(multicastText()).on(addressOf(1).interface()),
                                 static_cast<std::uint16_t>(discoveryPort() + 1)};
    auto holder = openSocket(group);
    device.answer(3, {group});
    ASSERT_TRUE(eventually([&] { return log.hasPart(3, "Events by multicast cannot be received"); }));
    holder.reset();
    device.answer(3, {group});
    ASSERT_TRUE(log.waitFor("Events come by multicast to " + someip::toText(group)));
    device.events->sendTo(group, device.notification(1, 1), true);
    device.events->sendTo(group, device.notification(2, 2), true);
    ASSERT_TRUE(eventually([&] { return client.count() == 2; }));
    PlainDevice stranger(3);
    const auto before = someip::counters().wrongPeer.value();
    stranger.events->sendTo(group, device.notification(66, 1), true);
    EXPECT_TRUE(eventually([&] { return someip::counters().wrongPeer.value() == before + 1; }));
    EXPECT_THAT(client.numbers(), ElementsAre(1, 2));
    client.readings->Unsubscribe();
    device.events->sendTo(group, device.notification(3, 3), true);
}
