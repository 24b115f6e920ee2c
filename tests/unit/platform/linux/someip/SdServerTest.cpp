#include <array>

#include "SdBench.h"

using namespace vlmTest;
using namespace someip;
using testing::Ge, testing::Le;

namespace {

constexpr Protocols kUdp{true, false};

struct SdServerSteps : SdBench {
    SdServer& server() { return sd.server(); }
    void offered(std::uint16_t service = 1) {
        server().offer({service, 1, 1}, 7, {{1, kUdp}, {2, kUdp}}, now);
        collect();
    }
    /// Offers the service and passes the repetitions.
    void settle() {
        offered();
        advance(300ms);
    }
    SdPeer& client = stranger;
};

}  // namespace

TEST_F(SdServerSteps, OffersAfterADelayRepeatsAndGoesIntoACycleSharedByAllServices) {
    offered(1);
    offered(2);
    EXPECT_THAT(sent, IsEmpty());
    advance(3s);
    EXPECT_THAT(delaysOf({"offer 1.1", "offer 2.1"}),
                ElementsAre(AllOf(Ge(10ms), Le(30ms)), 30ms, 60ms, 120ms, 1s, 1s));
    const auto& entry = sent.at(0).message.entries.at(0);
    EXPECT_EQ(entry.minor, 7u);
    EXPECT_EQ(entry.ttl, 3u);
    EXPECT_THAT(entry.unicast, ElementsAre(Endpoint{0x7F000001, 45000}));
}

TEST_F(SdServerSteps, AnswersAFindByUnicastOnceItHasOffered) {
    auto find = SdPeer::entry(SdEntryType::Find, 1, 3);
    find.instance = kAnyInstance;
    find.major = kAnyMajor;
    find.minor = kAnyMinor;
    offered();
    EXPECT_THAT(hearMulticast(client, {find}), IsEmpty()) << "still in its initial delay";
    advance(300ms);
    EXPECT_THAT(hearMulticast(client, {find, find, find}), ElementsAre("offer 1.1"))
        << "equal questions get one answer";
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, client.endpoint);

    auto [otherInstance, otherMajor, otherMinor, otherService] = std::array{find, find, find, find};
    otherInstance.instance = 2;
    otherMajor.major = 2;
    otherMinor.minor = 8;
    otherService.service = 2;
    EXPECT_THAT(hearMulticast(client, {otherInstance, otherMajor, otherMinor, otherService}), IsEmpty());
}

TEST_F(SdServerSteps, AcknowledgesASubscriptionAndReflectsItsCounter) {
    settle();
    auto entry = client.subscribe(1, 2);
    entry.counter = 5;
    entry.initialDataRequested = true;
    EXPECT_THAT(hearUnicast(client, {entry}), ElementsAre("ack 1.1/2"));
    EXPECT_THAT(observer.news, ElementsAre("added 1.1/2 127.0.0.3:50000"));
    EXPECT_EQ(sent.at(0).to, client.endpoint);
    const auto& answer = sent.at(0).message.entries.at(0);
    EXPECT_EQ(answer.counter, 5);
    EXPECT_TRUE(answer.initialDataRequested);
    EXPECT_EQ(answer.ttl, 3u);
    advance(500ms);
    hearUnicast(client, {entry});
    EXPECT_THAT(observer.news, IsEmpty()) << "a renewal";
    advance(2900ms);
    EXPECT_THAT(observer.news, IsEmpty());
    advance(200ms);
    EXPECT_THAT(observer.news, ElementsAre("removed 1.1/2 127.0.0.3:50000"));
}

TEST_F(SdServerSteps, RefusesWhatItDoesNotHaveAndMoreSubscribersThanItTakes) {
    settle();
    const auto good = client.subscribe(1, 1);
    auto [otherInstance, otherMajor] = std::array{good, good};
    otherInstance.instance = 2;
    otherMajor.major = 2;
    EXPECT_THAT(hearUnicast(client, {client.subscribe(9, 1), client.subscribe(1, 9), otherInstance,
                                     otherMajor, at(good, {}), at(good, {{0x08080808, 50000}}),
                                     at(good, {{0x7F000003, 50000}, {0x7F000003, 50001}})}),
                ElementsAre("nack 9.1/1", "nack 1.1/9", "nack 1.2/1", "nack 1.1/1", "nack 1.1/1",
                            "nack 1.1/1", "nack 1.1/1"));
    EXPECT_THAT(observer.news, IsEmpty());
    EXPECT_THAT(hearMulticast(client, {good}), IsEmpty()) << "a subscription by multicast is not for it";
    for (std::uint16_t port = 1; port <= SdServer::kMaxSubscribers + 1; ++port) {
        const bool fits = port <= SdServer::kMaxSubscribers;
        EXPECT_THAT(hearUnicast(client, {at(good, {{0x7F000003, port}})}),
                    ElementsAre(fits ? "ack 1.1/1" : "nack 1.1/1"));
        EXPECT_THAT(observer.news, SizeIs(fits ? 1 : 0));
    }
}

TEST_F(SdServerSteps, ASubscriptionOverTcpNeedsAConnectionAndEndsWithIt) {
    server().offer({1, 1, 1}, 7, {{1, {.tcp = true}}, {2, {.udp = true, .tcp = true}}}, now);
    advance(300ms);
    const Endpoint tcp{0x7F000003, 50001, Protocol::Tcp};
    EXPECT_THAT(sent.at(0).message.entries.at(0).unicast,
                ElementsAre(Endpoint{0x7F000001, 45000}, Endpoint{0x7F000001, 45000, Protocol::Tcp}));
    const auto reliable = at(client.subscribe(1, 1), {tcp});
    auto mixed = client.subscribe(1, 2);
    EXPECT_THAT(hearUnicast(client, {reliable, mixed}), ElementsAre("nack 1.1/1", "nack 1.1/2"))
        << "no connection; no endpoint for TCP";
    server().clientConnected(tcp);
    mixed.unicast.push_back(tcp);
    EXPECT_THAT(hearUnicast(client, {reliable, mixed}), ElementsAre("ack 1.1/1", "ack 1.1/2"));
    EXPECT_THAT(observer.news, ElementsAre("added 1.1/1 127.0.0.3:50001/tcp", "added 1.1/2 127.0.0.3:50000",
                                           "added 1.1/2 127.0.0.3:50001/tcp"));
    after([&] { server().clientLost(tcp); });
    EXPECT_THAT(observer.news, SizeIs(3));
    EXPECT_THAT(hearUnicast(client, {reliable}), ElementsAre("nack 1.1/1"));
}
