/// Two processes over UDP, their addresses, ports and groups.
#include "Bench.h"
#include "someip/EndpointLock.h"

using namespace vlmTest;

TEST_F(ClientAndServer, OnlySubscribedEventsAreSentAndTheServerLearnsWhoSubscribes) {
    const auto seen = std::make_shared<SharedList<std::string>>();  // the server outlives this function
    server.readings.setSubscriptionHandler([seen](const std::string& peer, bool subscribed) {
        seen->add(peer + (subscribed ? " came" : " went"));
    });
    connect();
    ASSERT_TRUE(eventually([&] { return seen->size() == 1; }));
    EXPECT_EQ(server.readings.subscribers(), 1u);
    EXPECT_EQ(server.alarms.subscribers(), 0u);
    client.readings->Unsubscribe();
    ASSERT_TRUE(eventually([&] { return seen->size() == 2; }));
    EXPECT_EQ(server.readings.subscribers(), 0u);
    EXPECT_FALSE(client.readings->subscribed());
    const auto where = toText(clientSide.eventEndpoint());
    EXPECT_THAT(seen->all(), ElementsAre(where + " came", where + " went"));
    std::atomic<bool> received{false};
    client.readings->Subscribe([&](std::vector<Reading>) { received = true; });
    EXPECT_TRUE(eventually([&] { return received.load(); }, [&] { server.readings.Send({numbered(1)}); }));
    client.readings->Unsubscribe();
}

TEST_F(ClientAndServer, SamplesArriveInOrderLargeOnesInSegmentsAndAfterAnEndAStopOrASilence) {
    connect();
    ASSERT_NO_FATAL_FAILURE(expectSamples());
    ASSERT_NO_FATAL_FAILURE(killBothSides(settingsFor(2)));
    EXPECT_GE(someip::counters().sdReboots.value(), 1u);

    log.clear();
    serverSide.stop();
    ASSERT_TRUE(log.waitFor("its offer was stopped"));
    EXPECT_EQ(server.readings.subscribers(), 0u);
    auto forServer = settingsFor(2);
    forServer.discovery.ttlSeconds = 1;
    forServer.discovery.cyclicOfferMs = 200;
    ASSERT_TRUE(serverSide.start(forServer, true));
    ASSERT_TRUE(server.sendUntilReceived(client, 6));
    serverSide.setSilent(true);
    ASSERT_TRUE(log.waitFor("its offer was not renewed"));
    serverSide.setSilent(false);
    EXPECT_TRUE(server.sendUntilReceived(client, 7));
}

TEST_F(ClientAndServer, EachFaultIsCountedAtItsPlaceAndTheNextSampleArrives) {
    connect();
    auto& counters = someip::counters();
    using Kind = someip::WireFault::Kind;
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
    ASSERT_TRUE(eventually([&] { return client.numbers().back() == 777; })) << "it does no harm";
    server.readings.SendFaulty({}, {Kind::TruncatedStructure});
    server.readings.SendFaulty({Reading{}}, {Kind::TruncatedStructure});
    ASSERT_TRUE(server.sendUntilReceived(client, number));
}

TEST_F(ClientAndServer, EverySampleIsReceivedOrCountedWhereTheSystemDroppedIt) {
    auto settings = settingsFor(1);
    settings.receiveBufferBytes = 4096;
    startBoth(settingsFor(2), settings);
    std::atomic<bool> hold{true};
    std::atomic<std::uint64_t> received{0};
    ASSERT_TRUE(client.connect([&](std::vector<Reading>) {
        while (hold) {
            std::this_thread::sleep_for(1ms);
        }
        ++received;
    }));
    const auto dropped = someip::counters().kernelDropped.value();
    std::uint64_t sent = 0;
    for (; sent < 2000; ++sent) {
        server.readings.Send({numbered(1)});
    }
    hold = false;
    // The system reports drops with the next datagram.
    EXPECT_TRUE(
        eventually([&] { return received + someip::counters().kernelDropped.value() - dropped == sent; },
                   [&] {
                       server.readings.Send({numbered(2)});
                       ++sent;
                       std::this_thread::sleep_for(5ms);
                   }));
    EXPECT_GT(someip::counters().kernelDropped.value(), dropped);
    client.readings.reset();
}

TEST_F(ClientAndServer, ASlowHandlerDoesNotLoseTheService) {
    // The offer's TTL expires while the handler sleeps; waiting messages are handled before deadlines are
    // checked.
    auto settings = settingsFor(2);
    settings.discovery.ttlSeconds = 1;
    settings.discovery.cyclicOfferMs = 100;
    startBoth(settings);
    std::atomic<int> calls{0};
    ASSERT_TRUE(client.connect([&](std::vector<Reading>) {
        if (++calls == 1) {
            std::this_thread::sleep_for(1300ms);
        }
    }));
    server.readings.Send({numbered(1)});
    ASSERT_TRUE(eventually([&] { return calls >= 2; }, [&] { server.readings.Send({numbered(2)}); }));
    EXPECT_FALSE(log.hasPart(5, "lost at"));
    client.readings.reset();
}

TEST_F(ClientAndServer, APlaceThatCannotBeTakenIsLoggedOnceAndRetriedUntilItCan) {
    auto squatter = openSocket({addressOf(1), discoveryPort()});
    auto foreign = settingsFor(1);
    foreign.address = ipv6Prefix().empty() ? "192.0.2.1" : "2001:db8::1";
    auto missing = settingsFor(1);
    missing.address = "fe80::1%nowhere";
    missing.network = "fe80::/64";
    missing.discovery.group = "ff02::6";
    for (const auto& [settings, reason] :
         {std::pair{foreign, "cannot bind " + toText(someip::Endpoint{addressFrom(foreign.address)})},
          {missing, R"(someip.address: "fe80::1%nowhere" names no interface)"},
          {settingsFor(1), "Address already in use"}}) {
        clientSide.stop();
        log.clear();
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(clientSide.start(settings, false));
        ASSERT_TRUE(log.waitFor("still not up", 2));
        EXPECT_GT(std::chrono::steady_clock::now() - begin, 1900ms) << "pauses of a second between the tries";
        EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr(reason)));
        EXPECT_FALSE(clientSide.networkIsUp());
    }
    EXPECT_FALSE(clientSide.start(settingsFor(1), false)) << "runs already";
    EXPECT_FALSE(ac::com::SkeletonBase(kMeter, 1, clientSide).OfferService())
        << "a middleware for clients offers nothing";
    ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    server.base.OfferService();
    EXPECT_TRUE(ac::com::findService(kMeter, "*", clientSide).empty());
    squatter.reset();
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
}

TEST_F(ClientAndServer, TheDiscoveryPortIsSharedWithAnotherStackWhicheverStartsFirst) {
    someip::UdpSocket::Options shared;
    shared.shared = true;
    const auto anyAddress = ipv6Prefix().empty() ? someip::Address() : someip::Address::ipv6(0, 0);
    const someip::Endpoint everywhere{anyAddress, discoveryPort()};
    auto neighbour = openSocket(everywhere, shared);
    connect();
    EXPECT_TRUE(server.sendUntilReceived(client, 1));
    neighbour.reset();
    neighbour = openSocket(everywhere, shared);
    serverSide.stop();
    ASSERT_TRUE(serverSide.start(settingsFor(2), true));
    EXPECT_TRUE(server.sendUntilReceived(client, 2));
    someip::DatagramBatch heard;
    EXPECT_GT(heard.receive(*neighbour), 0u) << "it hears the group as well";

    someip::Runtime second;
    ASSERT_TRUE(second.start(settingsFor(1), false));
    EXPECT_FALSE(second.networkIsUp());
    EXPECT_THAT(log.messages(3),
                ElementsAre(HasSubstr("another process of this kind uses " +
                                      someip::toText(someip::Endpoint{addressOf(1), discoveryPort()}) +
                                      "; give each an address of its own")));
    std::string error;
    const auto otherPort = static_cast<std::uint16_t>(discoveryPort() + 1);
    EXPECT_NE(someip::EndpointLock::take({addressOf(1), otherPort}, error), nullptr) << error;
    clientSide.stop();
    EXPECT_TRUE(eventually([&] { return second.networkIsUp(); }));
}
