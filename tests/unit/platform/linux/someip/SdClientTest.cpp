#include "SdBench.h"

using namespace vlmTest;
using namespace someip;

namespace {

constexpr ServiceKey kAnyOf1{1, kAnyInstance, 1};
constexpr ServiceKey kService1{1, 1, 1};
constexpr EventgroupKey kGroup1{kService1, 1};
constexpr EventgroupKey kGroup2{kService1, 2};

struct SdClientSteps : SdBench {
    SdClient& client() { return sd.client(); }
    void want(const EventgroupKey& key) {
        client().wantEventgroup(key, Protocol::Udp, now);
        collect();
    }
    void hearOffer(std::uint32_t ttl = 3) { hearMulticast(vehicle, {vehicle.offer(1, ttl)}); }
    void hearAcknowledgement(std::uint16_t group = 1, std::uint32_t ttl = 3) {
        hearUnicast(vehicle, {SdPeer::acknowledge(1, group, ttl)});
    }
    /// Finds the service and acknowledges the subscription.
    void settle() {
        want(kGroup1);
        hearOffer();
        hearAcknowledgement();
        ASSERT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
        observer.take();
        takeSent();
    }
    /// The seconds at which eventgroup 1 is requested, with an offer each second.
    std::vector<int> triedAfter(bool refused) {
        std::vector<int> tried;
        for (int second = 1; second <= 20; ++second) {
            advance(1s);
            hearOffer();
            if (!takeSent().empty()) {
                tried.push_back(second);
                if (refused) {
                    hearAcknowledgement(1, 0);
                }
            }
        }
        return tried;
    }
};

}  // namespace

TEST_F(SdClientSteps, AFindIsDelayedAndRepeatedWithDoublingDelayUntilAnOfferComes) {
    const auto start = now;
    client().want(kAnyOf1, now);
    client().want({2, kAnyInstance, 1}, now);
    advance(5s);
    EXPECT_GE(sent.at(0).at - start, 10ms);
    EXPECT_LE(sent.at(0).at - start, 30ms);
    EXPECT_THAT(gapsBetween({"find 1.65535", "find 2.65535"}), ElementsAre(30ms, 60ms, 120ms));
    takeSent();
    client().want(kAnyOf1, now);
    advance(1s);
    EXPECT_THAT(takeSent(), IsEmpty()) << "asking again soon is silent";
    now += 10s;
    client().want(kAnyOf1, now);
    advance(10ms);
    EXPECT_THAT(takeSent(), ElementsAre("find 1.65535"));

    hearOffer();
    EXPECT_THAT(observer.take(), ElementsAre("up 1.1 127.0.0.2:40000"));
    EXPECT_THAT(client().offered(kAnyOf1), SizeIs(1));
    EXPECT_THAT(client().offered({1, 2, 1}), IsEmpty());
    EXPECT_THAT(client().offered({1, kAnyInstance, 2}), IsEmpty()) << "another major version";
    advance(2s);
    EXPECT_THAT(takeSent(), IsEmpty());
    advance(1100ms);
    EXPECT_THAT(observer.take(), ElementsAre("down 1.1"));
    EXPECT_THAT(takeSent(), Contains("find 1.65535")) << "it is searched again";
}

TEST_F(SdClientSteps, AnOfferIsAnsweredBySubscriptionsInTheSameStepAndOneMessage) {
    want(kGroup1);
    want(kGroup2);
    EXPECT_THAT(takeSent(), IsEmpty());
    hearOffer();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, vehicle.endpoint);
    EXPECT_EQ(sent[0].message.entries.at(0).ttl, 3u);
    EXPECT_THAT(sent[0].message.entries.at(0).unicast, ElementsAre(Endpoint{0x7F000001, 45000}));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"));
    // First the offer, then the request.
    want({kService1, 3});
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/3"));
}

TEST_F(SdClientSteps, EachOfferRenewsAndWithoutOffersTheSubscriptionIsRenewedInTime) {
    settle();
    hearOffer(60);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    advance(1900ms);
    EXPECT_THAT(takeSent(), IsEmpty());
    advance(200ms);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement(1, 1);
    observer.take();
    advance(1s);
    EXPECT_THAT(observer.take(), ElementsAre("requested 1.1/1")) << "an acknowledgement that has run out";
}

TEST_F(SdClientSteps, OnlyItsOwnerStopsMovesOrAcknowledgesAServiceAndOnlyInsideTheNetwork) {
    auto outside = vehicle.offer(1);
    outside.unicast = {{0x08080808, 40000}};
    auto nowhere = vehicle.offer(1);
    nowhere.unicast.clear();
    auto any = vehicle.offer(1);
    any.instance = kAnyInstance;
    auto noPort = vehicle.offer(1);
    noPort.unicast = {{0x7F000002, 0}};
    auto twice = vehicle.offer(1);
    twice.unicast.push_back({0x7F000002, 40001});
    hearMulticast(vehicle, {outside, nowhere, any, noPort, twice});
    auto overDccp = vehicle.message(true, {vehicle.offer(1)});
    overDccp.at(53) = 33;
    hear(vehicle, true, overDccp);
    EXPECT_THAT(
        observer.take(),
        ElementsAre("unusable 1.1: its endpoint is outside of the network",
                    "unusable 1.1: it has no endpoint", "unusable 1.65535: it names no instance or version",
                    "unusable 1.1: its port is 0", "unusable 1.1: its endpoints contradict each other",
                    "unusable 1.1: it has no endpoint for UDP or TCP over IPv4"));

    want(kGroup1);
    hearOffer();
    observer.take();
    hearMulticast(stranger, {stranger.offer(1)});
    hearMulticast(stranger, {stranger.offer(1, 0)});
    hearUnicast(stranger, {SdPeer::acknowledge(1, 1)});
    hearMulticast(vehicle, {SdPeer::acknowledge(1, 1)});
    EXPECT_THAT(observer.take(), ElementsAre("unusable 1.1: another peer offers the same instance"));
    EXPECT_THAT(client().find(kService1)->endpoints, ElementsAre(Endpoint{0x7F000002, 40000}));
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Requested);
}

TEST_F(SdClientSteps, ANewEndpointOrARebootIsANewLifeAndADoubledMessageIsNot) {
    settle();
    const auto offer = vehicle.message(true, {vehicle.offer(1)});
    hear(vehicle, true, offer);
    hear(vehicle, true, offer);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(observer.take(), IsEmpty());

    auto moved = vehicle.offer(1);
    moved.unicast = {{0x7F000002, 40001}};
    hearMulticast(vehicle, {moved});
    EXPECT_THAT(observer.take(),
                ElementsAre("idle 1.1/1", "down 1.1", "up 1.1 127.0.0.2:40001", "requested 1.1/1"));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    observer.take();

    vehicle.restart();
    hearMulticast(vehicle, {moved});
    EXPECT_THAT(observer.take(), ElementsAre("rebooted 127.0.0.2:30490", "idle 1.1/1", "down 1.1",
                                             "up 1.1 127.0.0.2:40001", "requested 1.1/1"));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_THAT(observer.take(), ElementsAre("acknowledged 1.1/1")) << "its unicast has restarted as well";
}

TEST_F(SdClientSteps, AMissingAnswerOrARefusalIsTriedAgainAtOffersWithGrowingDelay) {
    want(kGroup1);
    hearOffer();
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(triedAfter(false), ElementsAre(1, 2, 4, 8, 16));

    vehicle.restart();
    hearOffer();
    takeSent();
    hearAcknowledgement(1, 0);
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Refused);
    EXPECT_THAT(triedAfter(true), ElementsAre(1, 3, 7, 15));
    advance(2s);
    hearOffer();
    advance(1s);
    hearOffer();
    ASSERT_THAT(takeSent(), ElementsAre("stop-subscribe 1.1/1", "subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
    hearAcknowledgement(1, 0);
    EXPECT_EQ(triedAfter(true).at(0), 1) << "once accepted, no back-off is left";
}

TEST_F(SdClientSteps, AfterAMissedAnswerItStopsAndSubscribesInOneMessageOrAsksForInitialData) {
    const auto offer = [&](bool multicast, bool explicitInitialData) {
        auto message = vehicle.message(multicast, {vehicle.offer(1)});
        message.at(kHeaderSize) &= explicitInitialData ? 0xFF : 0xDF;
        hear(vehicle, multicast, message);
    };
    const auto asksForInitialData = [&] { return sent.back().message.entries.back().initialDataRequested; };
    want(kGroup1);
    want(kGroup2);
    offer(true, false);
    EXPECT_TRUE(asksForInitialData());
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"));
    advance(1s);
    offer(false, false);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"))
        << "only for the group's offers";
    hearAcknowledgement(1);
    hearAcknowledgement(2);
    offer(true, false);
    EXPECT_FALSE(asksForInitialData());
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"));
    hearAcknowledgement(1);
    offer(true, false);
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "stop-subscribe 1.1/2", "subscribe 1.1/2"));
    hearAcknowledgement(1);
    offer(true, true);
    EXPECT_TRUE(asksForInitialData());
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"));

    // The two stay together where the entries fill several messages.
    for (std::uint16_t group = 3; group <= 100; ++group) {
        want({kService1, group});
    }
    offer(true, false);
    takeSent();
    advance(1s);
    offer(true, false);
    ASSERT_GE(sent.size(), 3u);
    for (const auto& one : sent) {
        const auto entries = describe(one.message);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (entries[i].starts_with("stop-")) {
                EXPECT_EQ(entries.at(i + 1), entries[i].substr(5));
            }
        }
    }
}

TEST_F(SdClientSteps, AServiceThatMovedIsFoundAtItsNewPeerOnceTheOldOneIsSilent) {
    want(kGroup1);
    hearOffer(kTtlUntilReboot);
    for (int second = 0; second < 10; ++second) {
        hearAcknowledgement(1, kTtlUntilReboot);
        advance(1s);
        hearMulticast(stranger, {stranger.offer(1)});
    }
    EXPECT_EQ(client().find(kService1)->peer, vehicle.endpoint) << "it lives: it acknowledges";
    observer.take();
    advance(4s);
    takeSent();
    hearMulticast(stranger, {stranger.offer(1)});
    EXPECT_THAT(observer.take(),
                ElementsAre("idle 1.1/1", "down 1.1", "up 1.1 127.0.0.3:40000", "requested 1.1/1"));
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, stranger.endpoint);
}

TEST_F(SdClientSteps, AStoppedInstanceIsAwaitedAndNotReplacedByAnother) {
    settle();
    auto second = vehicle.offer(1);
    second.instance = 2;
    hearMulticast(vehicle, {second});
    hearMulticast(vehicle, {vehicle.offer(1, 0)});
    hearMulticast(vehicle, {second});
    advance(1s);
    EXPECT_THAT(takeSent(), IsEmpty()) << "neither a subscription of the second nor a find";
    hearOffer();
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
}

TEST_F(SdClientSteps, ATtlWithoutEndLastsUntilTheRebootAndARefusalIsTriedAgainEvenWithoutFurtherOffers) {
    want(kGroup1);
    hearOffer(kTtlUntilReboot);
    takeSent();
    hearAcknowledgement(1, 0);
    advance(60s);
    EXPECT_THAT(takeSent(), Contains("subscribe 1.1/1"));
    advance(72h);
    EXPECT_NE(client().find(kService1), nullptr);
    vehicle.restart();
    hearMulticast(vehicle, {vehicle.offer(2)});
    EXPECT_EQ(client().find(kService1), nullptr);
}

TEST_F(SdClientSteps, StopsASubscriptionWithTheLastRequestForItAndAtTheEnd) {
    want(kGroup1);
    want(kGroup2);
    hearOffer();
    takeSent();
    want(kGroup1);
    client().dropEventgroup(kGroup1);
    collect();
    EXPECT_THAT(takeSent(), IsEmpty()) << "one wish is left";
    client().dropEventgroup(kGroup1);
    collect();
    EXPECT_THAT(takeSent(), ElementsAre("stop-subscribe 1.1/1"));
    hearAcknowledgement(2);
    sd.shutdown();
    collect();
    EXPECT_THAT(takeSent(), ElementsAre("stop-subscribe 1.1/2"));
    EXPECT_EQ(sd.nextDeadline(), Clock::time_point::max());
}

TEST_F(SdClientSteps, OffersNobodyWantsAreRememberedOnlyUpToACap) {
    client().want(kAnyOf1, now);
    for (std::uint16_t service = 100; service < 100 + 2 * SdClient::kMaxOffers; ++service) {
        hearMulticast(stranger, {stranger.offer(service, 600)});
    }
    auto heard = observer.take();
    EXPECT_EQ(std::erase_if(heard, [](const std::string& one) { return one.starts_with("unusable"); }),
              SdClient::kMaxOffers);
    EXPECT_THAT(heard, SizeIs(SdClient::kMaxOffers));
    hearOffer();
    EXPECT_THAT(observer.take(), ElementsAre("up 1.1 127.0.0.2:40000")) << "what is wanted finds its place";
}

TEST_F(SdClientSteps, EventsOverTcpAreSubscribedOnceConnectedAndAgainAfterTheConnectionWasLost) {
    const Endpoint server{vehicle.endpoint.address, 40000, Protocol::Tcp};
    const Endpoint ours{0x7F000001, 50001, Protocol::Tcp};
    const Endpoint oursAgain{0x7F000001, 50002, Protocol::Tcp};
    const auto offer = [&](bool both) {
        auto one = vehicle.offer(1);
        one.unicast = both ? std::vector{one.unicast.at(0), server} : std::vector{server};
        hearMulticast(vehicle, {one});
    };
    want(kGroup1);  // described for UDP, offered over TCP alone
    offer(false);
    EXPECT_THAT(client().neededConnections(), ElementsAre(server));
    EXPECT_THAT(takeSent(), IsEmpty()) << "the connection comes first";
    client().connected(server, ours, now);
    collect();
    EXPECT_THAT(sent.at(0).message.entries.at(0).unicast, ElementsAre(ours));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    offer(false);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1")) << "renewed over the same connection";

    client().disconnected(server);
    collect();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Idle);
    EXPECT_THAT(takeSent(), ElementsAre("stop-subscribe 1.1/1"));
    offer(false);
    EXPECT_THAT(takeSent(), IsEmpty());
    client().connected(server, oursAgain, now);
    collect();
    EXPECT_THAT(sent.at(0).message.entries.at(0).unicast, ElementsAre(oursAgain));
    takeSent();
    hearAcknowledgement(1, 0);
    EXPECT_THAT(client().takeSuspects(), ElementsAre(server)) << "the server may have lost its end";

    client().wantEventgroup(kGroup2, Protocol::Tcp, now);
    offer(true);
    EXPECT_THAT(client().neededConnections(), ElementsAre(server)) << "of the second group alone";
    hearMulticast(vehicle, {vehicle.offer(1, 0)});
    EXPECT_THAT(client().neededConnections(), IsEmpty());
}

TEST_F(SdClientSteps, OfAnOfferForBothKindsOfNetworkTheOwnKindCounts) {
    const auto ipv6 = Address::ipv6(0xFD00'0000'0000'0000, 2);
    auto both = vehicle.offer(1);
    both.unicast.push_back({ipv6, 40000});
    auto other = vehicle.offer(2);
    other.unicast = {{ipv6, 40000}};
    want(kGroup1);
    hearMulticast(vehicle, {both, other});
    EXPECT_THAT(observer.take(), ElementsAre("up 1.1 127.0.0.2:40000", "requested 1.1/1",
                                             "unusable 2.1: it has no endpoint for UDP or TCP over IPv4"));
    auto acknowledgement = SdPeer::acknowledge(1, 1);
    acknowledgement.multicast = {{Address::ipv6(0xFF02'0000'0000'0000, 5), 30491}, {0xEF000001, 30491}};
    hearUnicast(vehicle, {acknowledgement});
    EXPECT_THAT(observer.take(), ElementsAre("acknowledged 1.1/1", "group 1.1/1 239.0.0.1:30491"));
}

TEST_F(SdClientSteps, ALinkLocalAddressIsThatOfTheInterfaceWhereTheMessageComes) {
    constexpr std::uint32_t kHere = 70000;  // no interface has so high an index
    const auto at = [](std::uint64_t host, std::uint32_t interface) {
        return Address::ipv6(0xFE80'0000'0000'0000, host, interface);
    };
    ServiceDiscovery here{times,
                          {at(1, kHere), 45000},
                          {at(1, kHere), 45000, Protocol::Tcp},
                          {at(0, kHere), 64},
                          {observer, observer, observer},
                          1};
    here.client().wantEventgroup(kGroup1, Protocol::Udp, now);
    std::string error;
    for (const std::uint32_t interface : {kHere + 1, kHere}) {
        SdPeer peer({at(2, interface), 30490});
        EXPECT_TRUE(here.onDatagram(peer.endpoint, true, peer.message(true, {peer.offer(1)}), now, error))
            << error;
    }
    auto acknowledgement = SdPeer::acknowledge(1, 1);
    acknowledgement.multicast = {{Address::ipv6(0xFF02'0000'0000'0000, 5), 30491}};
    SdPeer peer({at(2, kHere), 30490});
    here.onDatagram(peer.endpoint, false, peer.message(false, {acknowledgement}), now, error);
    EXPECT_THAT(observer.take(), ElementsAre("unusable 1.1: its endpoint is outside of the network",
                                             "up 1.1 [fe80::2%70000]:40000", "requested 1.1/1",
                                             "acknowledged 1.1/1", "group 1.1/1 [ff02::5%70000]:30491"));
    EXPECT_THAT(here.client().find(kService1)->endpoints, ElementsAre(Endpoint{at(2, kHere), 40000}));
}
