/// A client and a server as two processes would be: a middleware each, at addresses of their own.
#include "Bench.h"

using namespace vlmTest;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

struct ClientAndServer : ::testing::Test {
    void startBoth() {
        ASSERT_TRUE(clientSide.start(settingsFor(1), false));
        ASSERT_TRUE(serverSide.start(settingsFor(2), true));
        ASSERT_TRUE(clientSide.networkIsUp());
        ASSERT_TRUE(serverSide.networkIsUp());
    }
    void connect() {
        startBoth();
        ASSERT_TRUE(server.base.OfferService());
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(client.subscribed());
    }

    LogCapture log{7};
    someip::Runtime clientSide;
    someip::Runtime serverSide;
    MeterServer server{serverSide};
    MeterClient client{clientSide};
};

}  // namespace

TEST_F(ClientAndServer, SamplesArriveAsTheyWereSentAndInOrder) {
    connect();
    std::vector<std::pair<std::string, bool>> told;
    std::vector<std::int64_t> expected;
    for (int i = 0; i < 500; ++i) {
        server.readings.Send({numbered(2 * i), numbered(2 * i + 1)});
        expected.insert(expected.end(), {2 * i, 2 * i + 1});
    }
    ASSERT_TRUE(eventually([&] { return client.count() >= 1000; }));
    EXPECT_EQ(client.numbers(), expected);

    server.readings.Send({fullReading(), Reading{}});
    ASSERT_TRUE(eventually([&] { return client.count() >= 1002; }));
    EXPECT_EQ(client.got[1000], fullReading());
    EXPECT_EQ(client.got[1001], Reading{});
}

TEST_F(ClientAndServer, ALargeSampleGoesInSegments) {
    connect();
    auto large = fullReading();
    large.text = std::string(200000, 'x');
    ASSERT_TRUE(server.readings.Send({numbered(1), large, numbered(2)}));
    ASSERT_TRUE(eventually([&] { return client.count() == 3; }));
    EXPECT_EQ(client.got[1], large);
}

TEST_F(ClientAndServer, OnlySubscribedEventsAreSent) {
    connect();
    EXPECT_EQ(server.readings.subscribers(), 1u);
    EXPECT_EQ(server.alarms.subscribers(), 0u);
    client.readings->Unsubscribe();
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 0; }));
    EXPECT_FALSE(client.readings->subscribed());
    client.readings->Subscribe([&](std::vector<Reading> samples) { client.take(std::move(samples)); });
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
}

TEST_F(ClientAndServer, TheServerIsToldWhoComesAndGoes) {
    std::mutex guard;
    std::vector<std::string> told;
    server.readings.setSubscriptionHandler([&](const std::string& peer, bool subscribed) {
        const std::lock_guard lock(guard);
        told.push_back(peer + (subscribed ? " came" : " went"));
    });
    const auto count = [&] {
        const std::lock_guard lock(guard);
        return told.size();
    };
    connect();
    ASSERT_TRUE(eventually([&] { return count() == 1; }));
    const auto where = toText(clientSide.eventEndpoint());
    client.readings->Unsubscribe();
    ASSERT_TRUE(eventually([&] { return count() == 2; }));
    EXPECT_THAT(told, ElementsAre(where + " came", where + " went"));
}

TEST_F(ClientAndServer, AServerThatIsKilledAndStartsAgainDeliversAgain) {
    connect();
    for (int life = 1; life <= 3; ++life) {
        ASSERT_TRUE(server.sendUntilReceived(client, life));
        serverSide.abandon();
        ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    }
    ASSERT_TRUE(server.sendUntilReceived(client, 4));
    EXPECT_GE(someip::counters().sdReboots.value(), 1u);
}

TEST_F(ClientAndServer, AServerThatSaysGoodByeAndReturnsDeliversAgain) {
    connect();
    ASSERT_TRUE(server.sendUntilReceived(client, 1));
    serverSide.stop();
    ASSERT_TRUE(log.waitFor("its offer was stopped"));
    EXPECT_EQ(server.readings.subscribers(), 0u);
    ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    ASSERT_TRUE(server.sendUntilReceived(client, 2));
    server.base.StopOfferService();
    ASSERT_TRUE(log.waitFor("its offer was stopped", 2));
    server.base.OfferService();
    ASSERT_TRUE(server.sendUntilReceived(client, 3));
}

TEST_F(ClientAndServer, AServerThatFallsSilentIsLostAndDeliversAgainWhenItSpeaks) {
    auto settings = settingsFor(2);
    settings.discovery.ttlSeconds = 1;
    settings.discovery.cyclicOfferMs = 200;
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    ASSERT_TRUE(serverSide.start(settings, true));
    ASSERT_TRUE(server.base.OfferService());
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(server.sendUntilReceived(client, 1));
    serverSide.setSilent(true);
    ASSERT_TRUE(log.waitFor("its offer was not renewed"));
    serverSide.setSilent(false);
    EXPECT_TRUE(server.sendUntilReceived(client, 2));
}

TEST_F(ClientAndServer, AClientThatIsKilledIsForgottenAndServedAgain) {
    connect();
    ASSERT_TRUE(server.sendUntilReceived(client, 1));
    clientSide.abandon();
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    ASSERT_TRUE(server.sendUntilReceived(client, 2));
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; })) << "its former life is gone";
}

TEST_F(ClientAndServer, ARefusedSubscriptionIsAcceptedLater) {
    const auto admit = std::make_shared<std::atomic<bool>>(false);
    server.readings.setSubscriptionPolicy([admit](const std::string&) { return admit->load(); });
    startBoth();
    server.base.OfferService();
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(log.waitFor("subscription refused by the service", 1));
    EXPECT_FALSE(client.readings->subscribed());
    EXPECT_EQ(server.readings.subscribers(), 0u);
    *admit = true;
    EXPECT_TRUE(client.subscribed());
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
    EXPECT_EQ(log.messages(3).size(), 1u) << "told once";
}

TEST_F(ClientAndServer, EachFaultIsCountedAtItsPlaceAndTheNextSampleArrives) {
    connect();
    auto& counters = someip::counters();
    using Kind = ac::com::WireFault::Kind;
    const std::vector<std::pair<Kind, kyo::Counter*>> faults = {
        {Kind::TruncatedStructure, &counters.truncated},
        {Kind::WrongLength, &counters.malformed},
        {Kind::WrongInterfaceVersion, &counters.wrongVersion},
        {Kind::WrongProtocolVersion, &counters.wrongVersion},
        {Kind::DuplicatedSession, &counters.sessionRepeats},
        {Kind::DoubledMember, &counters.doubledMembers},
        {Kind::WrongArrayLength, &counters.malformed},
    };
    ASSERT_TRUE(server.sendUntilReceived(client, 0));
    int number = 1;
    for (const auto& [kind, counter] : faults) {
        const auto before = counter->value();
        ASSERT_TRUE(server.readings.SendFaulty({numbered(number)}, {kind}));
        ASSERT_TRUE(eventually([&] { return counter->value() == before + 1; })) << "fault " << kind;
        ASSERT_TRUE(server.sendUntilReceived(client, number++)) << "fault " << kind;
    }
    server.readings.SendFaulty({numbered(777)}, {Kind::UnknownMember});
    ASSERT_TRUE(eventually([&] { return client.numbers().back() == 777; }))
        << "an unknown member does no harm";
    server.readings.SendFaulty({}, {Kind::TruncatedStructure});
    server.readings.SendFaulty({Reading{}}, {Kind::TruncatedStructure});
    ASSERT_TRUE(server.sendUntilReceived(client, number));
    ASSERT_FALSE(log.messages(3).empty());
    EXPECT_THAT(log.messages(3)[0],
                HasSubstr("Violation of [PRS_SOMEIP_00900]: Record length given by sender is "
                          "too small."));
}

TEST_F(ClientAndServer, EverySampleIsReceivedOrCountedWhereTheSystemDroppedIt) {
    auto settings = settingsFor(1);
    settings.receiveBufferBytes = 4096;
    ASSERT_TRUE(clientSide.start(settings, false));
    ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    server.base.OfferService();
    ASSERT_TRUE(client.find());
    std::atomic<bool> hold{true};
    std::atomic<std::uint64_t> received{0};
    ac::com::ProxyBase proxy(kMeter, client.handles.front(), clientSide);
    ac::com::ProxyEvent<Reading> readings(proxy, kReadings);
    readings.Subscribe([&](std::vector<Reading>) {
        while (hold) {
            std::this_thread::sleep_for(1ms);
        }
        ++received;
    });
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    const auto dropped = someip::counters().kernelDropped.value();
    std::uint64_t sent = 0;
    for (; sent < 2000; ++sent) {
        server.readings.Send({numbered(1)});
    }
    hold = false;
    // The system tells what it dropped with the next datagram that it takes.
    EXPECT_TRUE(
        eventually([&] { return received + someip::counters().kernelDropped.value() - dropped == sent; },
                   [&] {
                       server.readings.Send({numbered(2)});
                       ++sent;
                       std::this_thread::sleep_for(5ms);
                   }));
    EXPECT_GT(someip::counters().kernelDropped.value(), dropped);
}

TEST_F(ClientAndServer, ProxiesAndSkeletonsMayBeMadeBeforeTheMiddlewareAndOutliveIt) {
    ac::com::ServiceHandle handle{kMeter.serviceId, 1, kMeter.majorVersion};
    client.proxy = std::make_unique<ac::com::ProxyBase>(kMeter, handle, clientSide);
    client.readings = std::make_unique<ac::com::ProxyEvent<Reading>>(*client.proxy, kReadings);
    client.readings->Subscribe([&](std::vector<Reading> samples) { client.take(std::move(samples)); });
    EXPECT_TRUE(server.base.OfferService());
    EXPECT_TRUE(server.readings.Send({numbered(0)})) << "to nobody";
    EXPECT_TRUE(ac::com::findService(kMeter, "*", clientSide).empty());
    startBoth();
    ASSERT_TRUE(server.sendUntilReceived(client, 1));
    clientSide.stop();
    serverSide.stop();
    const auto count = client.count();
    server.readings.Send({numbered(2)});
    EXPECT_FALSE(client.readings->subscribed());
    EXPECT_TRUE(ac::com::findService(kMeter, "*", clientSide).empty());
    EXPECT_EQ(client.count(), count);
    client.readings->Unsubscribe();
    server.base.StopOfferService();
}

TEST_F(ClientAndServer, ASlowHandlerDoesNotLoseTheService) {
    // The offer's time to live passes while the handler sleeps; what came meanwhile is heard before times are
    // judged.
    auto settings = settingsFor(2);
    settings.discovery.ttlSeconds = 1;
    settings.discovery.cyclicOfferMs = 100;
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    ASSERT_TRUE(serverSide.start(settings, true));
    server.base.OfferService();
    ASSERT_TRUE(client.find());
    std::atomic<int> calls{0};
    ac::com::ProxyBase proxy(kMeter, client.handles.front(), clientSide);
    ac::com::ProxyEvent<Reading> readings(proxy, kReadings);
    readings.Subscribe([&](std::vector<Reading>) {
        if (++calls == 1) {
            std::this_thread::sleep_for(1300ms);
        }
    });
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; }));
    server.readings.Send({numbered(1)});
    ASSERT_TRUE(eventually([&] { return calls >= 2; }, [&] { server.readings.Send({numbered(2)}); }));
    EXPECT_FALSE(log.hasPart(5, "lost at"));
}

TEST_F(ClientAndServer, AMiddlewareForClientsOffersNothing) {
    ASSERT_TRUE(serverSide.start(settingsFor(2), false));
    EXPECT_FALSE(server.base.OfferService());
}

TEST_F(ClientAndServer, BothSidesInOneProcessFindEachOther) {
    ASSERT_TRUE(serverSide.start(settingsFor(3), true));
    MeterClient own(serverSide);
    server.base.OfferService();
    ASSERT_TRUE(own.connect());
    ASSERT_TRUE(own.subscribed());
    EXPECT_TRUE(server.sendUntilReceived(own, 7));
}

TEST_F(ClientAndServer, APortThatIsTakenIsToldOnceAndTriedUntilItIsFree) {
    std::string error;
    auto squatter = someip::UdpSocket::open({addressOf(1), discoveryPort()}, {}, error);
    ASSERT_NE(squatter, nullptr) << error;
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    EXPECT_FALSE(clientSide.networkIsUp());
    ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    server.base.OfferService();
    EXPECT_TRUE(ac::com::findService(kMeter, "*", clientSide).empty());
    EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr("Address already in use")));
    ASSERT_TRUE(log.waitFor("still not up", 2));
    EXPECT_EQ(log.messages(3).size(), 1u);
    squatter.reset();
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
}

TEST_F(ClientAndServer, AnAddressOfAnotherMachineIsToldAndTheEndIsQuick) {
    auto settings = settingsFor(1);
    settings.address = "192.0.2.1";
    ASSERT_TRUE(clientSide.start(settings, false));
    EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr("cannot bind 192.0.2.1:0")));
    clientSide.stop();
    settings.address = "nowhere";
    log.clear();
    ASSERT_TRUE(clientSide.start(settings, false));
    EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr("someip.address")));
    EXPECT_FALSE(clientSide.start(settings, false)) << "runs already";
}

// Multicast on the loopback interface: nothing leaves the machine.
TEST_F(ClientAndServer, DiscoveryWorksByAMulticastGroup) {
    auto forClient = settingsFor(1);
    auto forServer = settingsFor(2);
    forClient.discovery.group = forServer.discovery.group = multicastText();
    ASSERT_TRUE(clientSide.start(forClient, false));
    ASSERT_TRUE(serverSide.start(forServer, true));
    ASSERT_TRUE(clientSide.networkIsUp());
    server.base.OfferService();
    ASSERT_TRUE(client.connect());
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
}
