#include "SdBench.h"

using namespace vlmTest;
using namespace someip;
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr ServiceKey kAnyOf1{1, kAnyInstance, 1};
constexpr ServiceKey kService1{1, 1, 1};
constexpr EventgroupKey kGroup1{kService1, 1};
constexpr EventgroupKey kGroup2{kService1, 2};

struct SdClientSteps : SdBench {
    SdClient& client() { return sd.client(); }
    void want(const EventgroupKey& key) {
        client().wantEventgroup(key, now);
        collect();
    }
    void hearOffer(std::uint32_t ttl = 3) {
        hear(vehicle, true, vehicle.byMulticast({vehicle.offer(1, ttl)}));
    }
    void hearAcknowledgement(std::uint16_t group = 1, std::uint32_t ttl = 3) {
        hear(vehicle, false, vehicle.byUnicast({SdPeer::acknowledge(1, group, ttl)}));
    }
    /// Found, subscribed and acknowledged.
    void settle() {
        want(kGroup1);
        hearOffer();
        hearAcknowledgement();
        ASSERT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
        observer.take();
        takeSent();
    }
};

}  // namespace

TEST_F(SdClientSteps, AFindIsDelayedAndRepeatedWithDoublingDelayThenStops) {
    const auto start = now;
    client().want(kAnyOf1, now);
    client().want({2, kAnyInstance, 1}, now);
    advance(5s);
    ASSERT_THAT(sent, SizeIs(4)) << "one find and three repetitions, both services in each message";
    std::vector<std::chrono::milliseconds> gaps;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(sent[i].multicast);
        EXPECT_THAT(describe(sent[i].message), ElementsAre("find 1.65535", "find 2.65535"));
        if (i != 0) {
            gaps.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(sentAt[i] - sentAt[i - 1]));
        }
    }
    EXPECT_GE(sentAt[0] - start, 10ms);
    EXPECT_LE(sentAt[0] - start, 30ms);
    EXPECT_THAT(gaps, ElementsAre(30ms, 60ms, 120ms));
    takeSent();
    client().want(kAnyOf1, now);
    advance(1s);
    EXPECT_THAT(takeSent(), IsEmpty()) << "asking again soon is silent";
    now += 10s;
    client().want(kAnyOf1, now);
    advance(1s);
    EXPECT_THAT(takeSent(), ElementsAre("find 1.65535"));
}

TEST_F(SdClientSteps, AnOfferEndsTheSearchAndIsKnown) {
    client().want(kAnyOf1, now);
    hearOffer();
    EXPECT_THAT(observer.take(), ElementsAre("up 1.1 127.0.0.2:40000"));
    EXPECT_THAT(client().offered(kAnyOf1), SizeIs(1));
    EXPECT_THAT(client().offered({1, 2, 1}), IsEmpty());
    EXPECT_THAT(client().offered({1, kAnyInstance, 2}), IsEmpty()) << "another major version";
    advance(1s);
    EXPECT_THAT(takeSent(), IsEmpty());
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
    // The offer first, the wish later.
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
}

TEST_F(SdClientSteps, AServiceThatFallsSilentIsLostAtItsTtlAndSubscribedAgainWhenItReturns) {
    settle();
    advance(2999ms);
    EXPECT_THAT(observer.take(), Not(Contains("down 1.1")));
    advance(1ms);
    EXPECT_THAT(observer.take(), Contains("down 1.1"));
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Idle);
    takeSent();
    advance(100ms);
    EXPECT_THAT(takeSent(), Contains("find 1.1")) << "it is searched again";
    hearOffer();
    EXPECT_THAT(takeSent(), Contains("subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
}

TEST_F(SdClientSteps, AStoppedOfferIsLostAtOnceAndSubscribedAgainWhenItReturns) {
    settle();
    hearOffer(0);
    EXPECT_THAT(observer.take(), ElementsAre("idle 1.1/1", "down 1.1"));
    hearOffer();
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
}

TEST_F(SdClientSteps, OnlyItsOwnerStopsMovesOrAcknowledgesAService) {
    want(kGroup1);
    hearOffer();
    observer.take();
    hear(stranger, true, stranger.byMulticast({stranger.offer(1)}));
    hear(stranger, true, stranger.byMulticast({stranger.offer(1, 0)}));
    hear(stranger, false, stranger.byUnicast({SdPeer::acknowledge(1, 1)}));
    hear(vehicle, true, vehicle.byMulticast({SdPeer::acknowledge(1, 1)}));
    EXPECT_THAT(observer.take(), IsEmpty());
    EXPECT_EQ(client().find(kService1)->endpoint, (Endpoint{0x7F000002, 40000}));
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Requested);
}

TEST_F(SdClientSteps, AnOfferThatLeadsOutOfTheNetworkOrNowhereIsNotTaken) {
    auto outside = vehicle.offer(1);
    outside.unicast = {{0x08080808, 40000}};
    auto nowhere = vehicle.offer(1);
    nowhere.unicast.clear();
    auto any = vehicle.offer(1);
    any.instance = kAnyInstance;
    hear(vehicle, true, vehicle.byMulticast({outside, nowhere, any}));
    EXPECT_THAT(observer.take(), IsEmpty());
}

TEST_F(SdClientSteps, ANewEndpointOfTheSamePeerIsANewLife) {
    settle();
    auto moved = vehicle.offer(1);
    moved.unicast = {{0x7F000002, 40001}};
    hear(vehicle, true, vehicle.byMulticast({moved}));
    EXPECT_THAT(observer.take(),
                ElementsAre("idle 1.1/1", "down 1.1", "up 1.1 127.0.0.2:40001", "requested 1.1/1"));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
}

TEST_F(SdClientSteps, ARebootedPeerIsSubscribedAnewAtOnce) {
    settle();
    hearOffer();
    takeSent();
    vehicle.restart();
    hearOffer();
    EXPECT_THAT(observer.take(), ElementsAre("rebooted 127.0.0.2:30490", "idle 1.1/1", "down 1.1",
                                             "up 1.1 127.0.0.2:40000", "requested 1.1/1"));
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged) << "its unicast started anew as well";
    EXPECT_THAT(observer.take(), ElementsAre("acknowledged 1.1/1"));
}

TEST_F(SdClientSteps, ADoubledMessageChangesNothing) {
    settle();
    const auto offer = vehicle.byMulticast({vehicle.offer(1)});
    hear(vehicle, true, offer);
    hear(vehicle, true, offer);
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    EXPECT_THAT(observer.take(), IsEmpty());
}

TEST_F(SdClientSteps, ARefusalIsTriedAgainAtOffersWithGrowingDelay) {
    want(kGroup1);
    hearOffer();
    takeSent();
    hearAcknowledgement(1, 0);
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Refused);
    std::vector<int> triedAfter;
    for (int second = 1; second <= 20; ++second) {
        advance(1s);
        hearOffer();
        if (!takeSent().empty()) {
            triedAfter.push_back(second);
            hearAcknowledgement(1, 0);
        }
    }
    EXPECT_THAT(triedAfter, ElementsAre(1, 3, 7, 15));
    advance(1s);
    hearOffer();
    advance(1s);
    hearOffer();
    advance(1s);
    hearOffer();
    ASSERT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    hearAcknowledgement();
    EXPECT_EQ(client().state(kGroup1), SubscriptionState::Acknowledged);
    hearOffer();
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1")) << "once accepted, no back-off is left";
}

TEST_F(SdClientSteps, AMissingAnswerIsTriedAgainAtTheNextOfferAndThenLessOften) {
    want(kGroup1);
    hearOffer();
    EXPECT_THAT(takeSent(), ElementsAre("subscribe 1.1/1"));
    std::vector<int> triedAfter;
    for (int second = 1; second <= 20; ++second) {
        advance(1s);
        hearOffer();
        if (!takeSent().empty()) {
            triedAfter.push_back(second);
        }
    }
    EXPECT_THAT(triedAfter, ElementsAre(1, 2, 4, 8, 16));
}

TEST_F(SdClientSteps, ARefusalIsTriedAgainEvenWithoutFurtherOffers) {
    want(kGroup1);
    hearOffer(kTtlUntilReboot);
    takeSent();
    hearAcknowledgement(1, 0);
    advance(60s);
    EXPECT_THAT(takeSent(), Contains("subscribe 1.1/1"));
}

TEST_F(SdClientSteps, ATtlWithoutEndLastsUntilTheReboot) {
    want(kGroup1);
    hearOffer(kTtlUntilReboot);
    advance(72h);
    EXPECT_NE(client().find(kService1), nullptr);
    vehicle.restart();
    hear(vehicle, true, vehicle.byMulticast({vehicle.offer(2)}));
    EXPECT_EQ(client().find(kService1), nullptr);
}

TEST_F(SdClientSteps, AnAcknowledgementThatRunsOutIsAskedForAgain) {
    want(kGroup1);
    hearOffer(60);
    hearAcknowledgement(1, 1);
    observer.take();
    advance(1s);
    EXPECT_THAT(observer.take(), ElementsAre("requested 1.1/1"));
}

TEST_F(SdClientSteps, AMulticastGroupInTheAcknowledgementIsTold) {
    want(kGroup1);
    hearOffer();
    observer.take();
    auto entry = SdPeer::acknowledge(1, 1);
    entry.multicast = {{0xEF000005, 31000}};
    hear(vehicle, false, vehicle.byUnicast({entry}));
    EXPECT_THAT(observer.take(), ElementsAre("acknowledged 1.1/1", "group 1.1/1 239.0.0.5:31000"));
}

TEST_F(SdClientSteps, StopsWhatItHasSubscribedWhenTheLastWishGoesAndAtTheEnd) {
    want(kGroup1);
    want(kGroup1);
    want(kGroup2);
    hearOffer();
    takeSent();
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
        hear(stranger, true, stranger.byMulticast({stranger.offer(service, 600)}));
    }
    EXPECT_THAT(observer.take(), SizeIs(SdClient::kMaxOffers));
    hearOffer();
    EXPECT_THAT(observer.take(), ElementsAre("up 1.1 127.0.0.2:40000")) << "what is wanted finds its place";
}
