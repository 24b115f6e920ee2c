#include <array>

#include "SdBench.h"

using namespace vlmTest;
using namespace someip;

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
        takeSent();
    }
    SdPeer& client = stranger;
};

}  // namespace

TEST_F(SdServerSteps, OffersAfterADelayRepeatsAndGoesIntoACycleSharedByAllServices) {
    const auto start = now;
    offered(1);
    offered(2);
    EXPECT_THAT(takeSent(), IsEmpty());
    advance(3s);
    EXPECT_GE(sent.at(0).at - start, 10ms);
    EXPECT_LE(sent.at(0).at - start, 30ms);
    EXPECT_THAT(gapsBetween({"offer 1.1", "offer 2.1"}), ElementsAre(30ms, 60ms, 120ms, 1s, 1s));
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
    hearMulticast(client, {find});
    EXPECT_THAT(takeSent(), IsEmpty()) << "still in its initial delay";
    advance(300ms);
    takeSent();
    hearMulticast(client, {find, find, find});
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_FALSE(sent[0].multicast);
    EXPECT_EQ(sent[0].to, client.endpoint);
    EXPECT_THAT(takeSent(), ElementsAre("offer 1.1")) << "equal questions get one answer";

    auto [otherInstance, otherMajor, otherMinor, otherService] = std::array{find, find, find, find};
    otherInstance.instance = 2;
    otherMajor.major = 2;
    otherMinor.minor = 8;
    otherService.service = 2;
    hearMulticast(client, {otherInstance, otherMajor, otherMinor, otherService});
    EXPECT_THAT(takeSent(), IsEmpty());
}

TEST_F(SdServerSteps, AcknowledgesASubscriptionAndReflectsItsCounter) {
    settle();
    auto entry = client.subscribe(1, 2);
    entry.counter = 5;
    entry.initialDataRequested = true;
    hearUnicast(client, {entry});
    EXPECT_THAT(observer.take(), ElementsAre("added 1.1/2 127.0.0.3:50000"));
    EXPECT_EQ(sent.at(0).message.entries.at(0).counter, 5);
    EXPECT_TRUE(sent.at(0).message.entries.at(0).initialDataRequested);
    EXPECT_EQ(sent.at(0).message.entries.at(0).ttl, 3u);
    EXPECT_EQ(sent.at(0).to, client.endpoint);
    EXPECT_THAT(takeSent(), ElementsAre("ack 1.1/2"));
    advance(500ms);
    hearUnicast(client, {entry});
    EXPECT_THAT(observer.take(), IsEmpty()) << "a renewal";
    advance(2900ms);
    EXPECT_THAT(observer.take(), IsEmpty());
    advance(200ms);
    EXPECT_THAT(observer.take(), ElementsAre("removed 1.1/2 127.0.0.3:50000"));
}

TEST_F(SdServerSteps, RefusesWhatItDoesNotHaveAndMoreSubscribersThanItTakes) {
    settle();
    const auto good = client.subscribe(1, 1);
    auto [otherInstance, otherMajor, nowhere, outside] = std::array{good, good, good, good};
    otherInstance.instance = 2;
    otherMajor.major = 2;
    nowhere.unicast.clear();
    outside.unicast = {{0x08080808, 50000}};
    auto twice = good;
    twice.unicast.push_back({0x7F000003, 50001});
    hearUnicast(client, {client.subscribe(9, 1), client.subscribe(1, 9), otherInstance, otherMajor, nowhere,
                         outside, twice});
    EXPECT_THAT(takeSent(), ElementsAre("nack 9.1/1", "nack 1.1/9", "nack 1.2/1", "nack 1.1/1", "nack 1.1/1",
                                        "nack 1.1/1", "nack 1.1/1"));
    EXPECT_THAT(observer.take(), IsEmpty());
    hearMulticast(client, {client.subscribe(1, 1)});
    EXPECT_THAT(takeSent(), IsEmpty()) << "a subscription by multicast is not meant for it";
    auto one = good;
    for (std::uint16_t port = 1; port <= SdServer::kMaxSubscribers + 1; ++port) {
        one.unicast = {{0x7F000003, port}};
        hearUnicast(client, {one});
    }
    EXPECT_THAT(observer.take(), SizeIs(SdServer::kMaxSubscribers));
    EXPECT_EQ(takeSent().back(), "nack 1.1/1");
}

TEST_F(SdServerSteps, ASubscriptionOverTcpNeedsAConnectionAndEndsWithIt) {
    server().offer({1, 1, 1}, 7, {{1, {.tcp = true}}, {2, {.udp = true, .tcp = true}}}, now);
    advance(300ms);
    const Endpoint tcp{0x7F000003, 50001, Protocol::Tcp};
    EXPECT_THAT(sent.at(0).message.entries.at(0).unicast,
                ElementsAre(Endpoint{0x7F000001, 45000}, Endpoint{0x7F000001, 45000, Protocol::Tcp}));
    takeSent();
    auto reliable = client.subscribe(1, 1);
    reliable.unicast = {tcp};
    auto mixed = client.subscribe(1, 2);
    hearUnicast(client, {reliable, mixed});
    EXPECT_THAT(takeSent(), ElementsAre("nack 1.1/1", "nack 1.1/2")) << "no connection; no endpoint for TCP";
    server().clientConnected(tcp);
    mixed.unicast.push_back(tcp);
    hearUnicast(client, {reliable, mixed});
    EXPECT_THAT(takeSent(), ElementsAre("ack 1.1/1", "ack 1.1/2"));
    EXPECT_THAT(observer.take(), ElementsAre("added 1.1/1 127.0.0.3:50001/tcp", "added 1.1/2 127.0.0.3:50000",
                                             "added 1.1/2 127.0.0.3:50001/tcp"));
    server().clientLost(tcp);
    EXPECT_THAT(observer.take(), SizeIs(3));
    hearUnicast(client, {reliable});
    EXPECT_THAT(takeSent(), ElementsAre("nack 1.1/1"));
}
