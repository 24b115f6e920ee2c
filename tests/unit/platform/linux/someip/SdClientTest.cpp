#include "SdBench.h"

using namespace vlmTest;
using namespace someip;
using testing::Ge, testing::Le;

namespace {

constexpr ServiceKey kAnyOf1{1, kAnyInstance, 1};
constexpr ServiceKey kService1{1, 1, 1};
constexpr EventgroupKey kGroup1{kService1, 1};
constexpr EventgroupKey kGroup2{kService1, 2};

struct SdClientSteps : SdBench {
    SdClient& client() { return sd.client(); }
    Texts want(const EventgroupKey& key, Protocol protocol = Protocol::Udp) {
        return after([&] { client().wantEventgroup(key, protocol, now); });
    }
    Texts drop(const EventgroupKey& key) {
        return after([&] { client().dropEventgroup(key); });
    }
    Texts hearOffer(std::uint32_t ttl = 3) { return hearMulticast(vehicle, {vehicle.offer(1, ttl)}); }
    Texts hearAcknowledgement(std::uint16_t group = 1, std::uint32_t ttl = 3) {
        return hearUnicast(vehicle, {SdPeer::acknowledge(1, group, ttl)});
    }
    /// Finds the service and acknowledges the subscription.
    void settle() {
        want(kGroup1);
        hearOffer();
        hearAcknowledgement();
        ASSERT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
    }
    /// The seconds at which eventgroup 1 is requested, with an offer each second.
    std::vector<int> triedAfter(bool refused) {
        std::vector<int> tried;
        for (int second = 1; second <= 20; ++second) {
            EXPECT_THAT(advance(1s), IsEmpty());
            if (hearOffer().empty()) {
                continue;
            }
            tried.push_back(second);
            if (refused) {
                hearAcknowledgement(1, 0);
            }
        }
        return tried;
    }
};

}  // namespace

TEST_F(SdClientSteps, AFindIsDelayedAndRepeatedWithDoublingDelayUntilAnOfferComes) {
    client().want(kAnyOf1, now);
    client().want({2, kAnyInstance, 1}, now);
    advance(5s);
    EXPECT_THAT(delaysOf({"find 1.65535", "find 2.65535"}),
                ElementsAre(AllOf(Ge(10ms), Le(30ms)), 30ms, 60ms, 120ms));
    client().want(kAnyOf1, now);
    EXPECT_THAT(advance(1s), IsEmpty()) << "asking again soon is silent";
    now += 10s;
    client().want(kAnyOf1, now);
    EXPECT_THAT(advance(10ms), ElementsAre("find 1.65535"));

    hearOffer();
    EXPECT_THAT(observer.news, ElementsAre("up 1.1 127.0.0.2:40000"));
    EXPECT_THAT(client().offered(kAnyOf1), SizeIs(1));
    EXPECT_THAT(client().offered({1, 2, 1}), IsEmpty());
    EXPECT_THAT(client().offered({1, kAnyInstance, 2}), IsEmpty()) << "another major version";
    EXPECT_THAT(advance(2s), IsEmpty());
    EXPECT_THAT(advance(1100ms), Contains("find 1.65535")) << "it is searched again";
    EXPECT_THAT(observer.news, ElementsAre("down 1.1"));
}

TEST_F(SdClientSteps, AnOfferIsAnsweredBySubscriptionsInOneMessageAndEachEndsWithTheLastRequestForIt) {
    EXPECT_THAT(want(kGroup1), IsEmpty());
    EXPECT_THAT(want(kGroup2), IsEmpty());
    EXPECT_THAT(hearOffer(), ElementsAre("subscribe 1.1/1", "subscribe 1.1/2"));
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, vehicle.endpoint);
    EXPECT_EQ(sent[0].message.entries.at(0).ttl, 3u);
    EXPECT_THAT(sent[0].message.entries.at(0).unicast, ElementsAre(Endpoint{0x7F000001, 45000}));
    EXPECT_THAT(want({kService1, 3}), ElementsAre("subscribe 1.1/3")) << "first the offer, then the request";

    EXPECT_THAT(want(kGroup1), IsEmpty());
    EXPECT_THAT(drop(kGroup1), IsEmpty()) << "one wish is left";
    EXPECT_THAT(drop(kGroup1), ElementsAre("stop-subscribe 1.1/1"));
    hearAcknowledgement(2);
    EXPECT_THAT(after([&] { sd.shutdown(); }), ElementsAre("stop-subscribe 1.1/2", "stop-subscribe 1.1/3"));
    EXPECT_EQ(sd.nextDeadline(), Clock::time_point::max());
}

TEST_F(SdClientSteps, EachOfferRenewsAndWithoutOffersTheSubscriptionIsRenewedInTime) {
    settle();
    EXPECT_THAT(hearOffer(60), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_THAT(advance(1900ms), IsEmpty());
    EXPECT_THAT(advance(200ms), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement(1, 1);
    advance(1s);
    EXPECT_THAT(observer.news, ElementsAre("requested 1.1/1")) << "an acknowledgement that has run out";
}

TEST_F(SdClientSteps, OnlyItsOwnerStopsMovesOrAcknowledgesAServiceAndOnlyInsideTheNetwork) {
    const auto good = vehicle.offer(1);
    auto any = good;
    any.instance = kAnyInstance;
    hearMulticast(vehicle, {at(good, {{0x08080808, 40000}}), at(good, {}), any, at(good, {{0x7F000002, 0}}),
                            at(good, {{0x7F000002, 40000}, {0x7F000002, 40001}})});
    EXPECT_THAT(
        observer.news,
        ElementsAre("unusable 1.1: its endpoint is outside of the network",
                    "unusable 1.1: it has no endpoint", "unusable 1.65535: it names no instance or version",
                    "unusable 1.1: its port is 0", "unusable 1.1: its endpoints contradict each other"));
    auto overDccp = vehicle.message(true, {good});
    overDccp.at(53) = 33;
    hear(vehicle, true, overDccp);
    EXPECT_THAT(observer.news, ElementsAre("unusable 1.1: it has no endpoint for UDP or TCP over IPv4"));

    want(kGroup1);
    hearOffer();
    hearMulticast(stranger, {stranger.offer(1), stranger.offer(1, 0)});
    EXPECT_THAT(observer.news, ElementsAre("unusable 1.1: another peer offers the same instance"));
    hearUnicast(stranger, {SdPeer::acknowledge(1, 1)});
    hearMulticast(vehicle, {SdPeer::acknowledge(1, 1)});
    EXPECT_THAT(client().find(kService1)->endpoints, ElementsAre(Endpoint{0x7F000002, 40000}));
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Requested);
}

TEST_F(SdClientSteps, ANewEndpointOrARebootIsANewLifeAndADoubledMessageIsNot) {
    settle();
    const auto offer = vehicle.message(true, {vehicle.offer(1)});
    EXPECT_THAT(hear(vehicle, true, offer), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(observer.news, IsEmpty());
    EXPECT_THAT(hear(vehicle, true, offer), IsEmpty());
    EXPECT_THAT(observer.news, IsEmpty());

    const auto moved = at(vehicle.offer(1), {{0x7F000002, 40001}});
    EXPECT_THAT(hearMulticast(vehicle, {moved}), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(observer.news,
                ElementsAre("idle 1.1/1", "down 1.1", "up 1.1 127.0.0.2:40001", "requested 1.1/1"));
    hearAcknowledgement();
    vehicle.restart();
    EXPECT_THAT(hearMulticast(vehicle, {moved}), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(observer.news, ElementsAre("rebooted 127.0.0.2:30490", "idle 1.1/1", "down 1.1",
                                           "up 1.1 127.0.0.2:40001", "requested 1.1/1"));
    hearAcknowledgement();
    EXPECT_THAT(observer.news, ElementsAre("acknowledged 1.1/1")) << "its unicast has restarted as well";
}

TEST_F(SdClientSteps, AMissingAnswerOrARefusalIsTriedAgainAtOffersWithGrowingDelay) {
    want(kGroup1);
    EXPECT_THAT(hearOffer(), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(triedAfter(false), ElementsAre(1, 2, 4, 8, 16));

    vehicle.restart();
    hearOffer();
    hearAcknowledgement(1, 0);
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Refused);
    EXPECT_THAT(triedAfter(true), ElementsAre(1, 3, 7, 15));
    advance(2s);
    EXPECT_THAT(hearOffer(), IsEmpty());
    advance(1s);
    ASSERT_THAT(hearOffer(), ElementsAre("stop-subscribe 1.1/1", "subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
    hearAcknowledgement(1, 0);
    EXPECT_EQ(triedAfter(true).at(0), 1) << "once accepted, no back-off is left";
}

TEST_F(SdClientSteps, AfterAMissedAnswerItStopsAndSubscribesInOneMessageOrAsksForInitialData) {
    const auto offer = [&](bool multicast, bool explicitInitialData) {
        auto message = vehicle.message(multicast, {vehicle.offer(1)});
        message.at(kHeaderSize) &= explicitInitialData ? 0xFF : 0xDF;
        return hear(vehicle, multicast, message);
    };
    const auto asksForInitialData = [&] { return sent.back().message.entries.back().initialDataRequested; };
    const auto both = ElementsAre("subscribe 1.1/1", "subscribe 1.1/2");
    want(kGroup1);
    want(kGroup2);
    EXPECT_THAT(offer(true, false), both);
    EXPECT_TRUE(asksForInitialData());
    advance(1s);
    EXPECT_THAT(offer(false, false), both) << "only for the group's offers";
    hearAcknowledgement(1);
    hearAcknowledgement(2);
    EXPECT_THAT(offer(true, false), both);
    EXPECT_FALSE(asksForInitialData());
    hearAcknowledgement(1);
    EXPECT_THAT(offer(true, false),
                ElementsAre("subscribe 1.1/1", "stop-subscribe 1.1/2", "subscribe 1.1/2"));
    ASSERT_THAT(sent, SizeIs(1));
    hearAcknowledgement(1);
    EXPECT_THAT(offer(true, true), both);
    EXPECT_TRUE(asksForInitialData());

    // The two stay together where the entries fill several messages.
    for (std::uint16_t group = 3; group <= 100; ++group) {
        want({kService1, group});
    }
    offer(true, false);
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
    advance(4s);
    hearMulticast(stranger, {stranger.offer(1)});
    EXPECT_THAT(observer.news,
                ElementsAre("idle 1.1/1", "down 1.1", "up 1.1 127.0.0.3:40000", "requested 1.1/1"));
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, stranger.endpoint);
}

TEST_F(SdClientSteps, AStoppedInstanceIsAwaitedAndNotReplacedByAnother) {
    settle();
    auto second = vehicle.offer(1);
    second.instance = 2;
    EXPECT_THAT(hearMulticast(vehicle, {second, vehicle.offer(1, 0)}), IsEmpty());
    EXPECT_THAT(hearMulticast(vehicle, {second}), IsEmpty()) << "no subscription of the second";
    EXPECT_THAT(advance(1s), IsEmpty()) << "nor a find";
    EXPECT_THAT(hearOffer(), ElementsAre("subscribe 1.1/1"));
}

TEST_F(SdClientSteps, ATtlWithoutEndLastsUntilTheRebootAndARefusalIsTriedAgainEvenWithoutFurtherOffers) {
    want(kGroup1);
    hearOffer(kTtlUntilReboot);
    hearAcknowledgement(1, 0);
    EXPECT_THAT(advance(60s), Contains("subscribe 1.1/1"));
    advance(72h);
    EXPECT_NE(client().find(kService1), nullptr);
    vehicle.restart();
    hearMulticast(vehicle, {vehicle.offer(2)});
    EXPECT_EQ(client().find(kService1), nullptr);
}

TEST_F(SdClientSteps, OffersNobodyWantsAreRememberedOnlyUpToACap) {
    client().want(kAnyOf1, now);
    std::map<std::string, std::size_t> heard;
    for (std::uint16_t service = 100; service < 100 + 2 * SdClient::kMaxOffers; ++service) {
        hearMulticast(stranger, {stranger.offer(service, 600)});
        ASSERT_THAT(observer.news, SizeIs(1));
        ++heard[observer.news[0].substr(0, 2)];
    }
    EXPECT_THAT(heard, ElementsAre(Pair("un", SdClient::kMaxOffers), Pair("up", SdClient::kMaxOffers)));
    hearOffer();
    EXPECT_THAT(observer.news, ElementsAre("up 1.1 127.0.0.2:40000")) << "what is wanted finds its place";
}

TEST_F(SdClientSteps, EventsOverTcpAreSubscribedOnceConnectedAndAgainAfterTheConnectionWasLost) {
    const Endpoint server{vehicle.endpoint.address, 40000, Protocol::Tcp};
    const auto offer = [&] { return hearMulticast(vehicle, {at(vehicle.offer(1), {server})}); };
    const auto connectFrom = [&](const Endpoint& ours) {
        EXPECT_THAT(after([&] { client().connected(server, ours, now); }), ElementsAre("subscribe 1.1/1"));
        EXPECT_THAT(sent.at(0).message.entries.at(0).unicast, ElementsAre(ours));
    };
    want(kGroup1);  // described for UDP, offered over TCP alone
    EXPECT_THAT(offer(), IsEmpty()) << "the connection comes first";
    EXPECT_THAT(client().neededConnections(), ElementsAre(server));
    connectFrom({0x7F000001, 50001, Protocol::Tcp});
    hearAcknowledgement();
    EXPECT_THAT(offer(), ElementsAre("subscribe 1.1/1")) << "renewed over the same connection";

    EXPECT_THAT(after([&] { client().disconnected(server); }), ElementsAre("stop-subscribe 1.1/1"));
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Idle);
    EXPECT_THAT(offer(), IsEmpty());
    connectFrom({0x7F000001, 50002, Protocol::Tcp});
    hearAcknowledgement(1, 0);
    EXPECT_THAT(client().takeSuspects(), ElementsAre(server)) << "the server may have lost its end";

    want(kGroup2, Protocol::Tcp);
    hearMulticast(vehicle, {at(vehicle.offer(1), {{server.address, 40000}, server})});
    EXPECT_THAT(client().neededConnections(), ElementsAre(server)) << "of the second group alone";
    hearMulticast(vehicle, {vehicle.offer(1, 0)});
    EXPECT_THAT(client().neededConnections(), IsEmpty());
}

TEST_F(SdClientSteps, OfAnOfferForBothKindsOfNetworkTheOwnKindCounts) {
    const Endpoint ipv6{Address::ipv6(0xFD00'0000'0000'0000, 2), 40000};
    want(kGroup1);
    hearMulticast(vehicle, {at(vehicle.offer(1), {{0x7F000002, 40000}, ipv6}), at(vehicle.offer(2), {ipv6})});
    EXPECT_THAT(observer.news, ElementsAre("up 1.1 127.0.0.2:40000", "requested 1.1/1",
                                           "unusable 2.1: it has no endpoint for UDP or TCP over IPv4"));
    auto acknowledgement = SdPeer::acknowledge(1, 1);
    acknowledgement.multicast = {{Address::ipv6(0xFF02'0000'0000'0000, 5), 30491}, {0xEF000001, 30491}};
    hearUnicast(vehicle, {acknowledgement});
    EXPECT_THAT(observer.news, ElementsAre("acknowledged 1.1/1", "group 1.1/1 239.0.0.1:30491"));
}

TEST_F(SdClientSteps, ALinkLocalAddressIsThatOfTheInterfaceWhereTheMessageComes) {
    constexpr std::uint32_t kHere = 70000;  // no interface has so high an index
    const auto host = [](std::uint64_t number, std::uint32_t interface) {
        return Address::ipv6(0xFE80'0000'0000'0000, number, interface);
    };
    ServiceDiscovery here{times,
                          {host(1, kHere), 45000},
                          {host(1, kHere), 45000, Protocol::Tcp},
                          {host(0, kHere), 64},
                          {observer, observer, observer},
                          1};
    here.client().wantEventgroup(kGroup1, Protocol::Udp, now);
    std::string error;
    for (const std::uint32_t interface : {kHere + 1, kHere}) {
        SdPeer peer({host(2, interface), 30490});
        EXPECT_TRUE(here.onDatagram(peer.endpoint, true, peer.message(true, {peer.offer(1)}), now, error))
            << error;
    }
    EXPECT_THAT(observer.news, ElementsAre("unusable 1.1: its endpoint is outside of the network",
                                           "up 1.1 [fe80::2%70000]:40000", "requested 1.1/1"));
    EXPECT_THAT(here.client().find(kService1)->endpoints, ElementsAre(Endpoint{host(2, kHere), 40000}));
}
