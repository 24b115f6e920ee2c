#include "SdBench.h"

using namespace vlmTest;
using namespace someip;
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr ServiceKey kService1{1, 1, 1};

struct SdServerSteps : SdBench {
    SdServer& server() { return sd.server(); }
    void offered(std::uint16_t service = 1) {
        server().offer({service, 1, 1}, 7, {1, 2}, now);
        collect();
    }
    /// Offered and through with the repetitions.
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
    std::vector<std::chrono::milliseconds> gaps;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(sent[i].multicast);
        EXPECT_THAT(describe(sent[i].message), ElementsAre("offer 1.1", "offer 2.1"));
        if (i != 0) {
            gaps.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(sentAt[i] - sentAt[i - 1]));
        }
    }
    EXPECT_GE(sentAt.at(0) - start, 10ms);
    EXPECT_LE(sentAt.at(0) - start, 30ms);
    EXPECT_THAT(gaps, ElementsAre(30ms, 60ms, 120ms, 1s, 1s));
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
    hear(client, true, client.byMulticast({find}));
    EXPECT_THAT(takeSent(), IsEmpty()) << "still in its initial delay";
    advance(300ms);
    takeSent();
    hear(client, true, client.byMulticast({find, find, find}));
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_FALSE(sent[0].multicast);
    EXPECT_EQ(sent[0].to, client.endpoint);
    EXPECT_THAT(takeSent(), ElementsAre("offer 1.1")) << "equal questions get one answer";

    auto otherInstance = find;
    otherInstance.instance = 2;
    auto otherMajor = find;
    otherMajor.major = 2;
    auto otherMinor = find;
    otherMinor.minor = 8;
    auto otherService = find;
    otherService.service = 2;
    hear(client, true, client.byMulticast({otherInstance, otherMajor, otherMinor, otherService}));
    EXPECT_THAT(takeSent(), IsEmpty());
}

TEST_F(SdServerSteps, AcknowledgesASubscriptionAndReflectsItsCounter) {
    settle();
    auto entry = client.subscribe(1, 2);
    entry.counter = 5;
    hear(client, false, client.byUnicast({entry}));
    EXPECT_THAT(observer.take(), ElementsAre("added 1.1/2 127.0.0.3:50000"));
    EXPECT_EQ(sent.at(0).message.entries.at(0).counter, 5);
    EXPECT_EQ(sent.at(0).message.entries.at(0).ttl, 3u);
    EXPECT_EQ(sent.at(0).to, client.endpoint);
    EXPECT_THAT(takeSent(), ElementsAre("ack 1.1/2"));
    advance(500ms);
    hear(client, false, client.byUnicast({entry}));
    EXPECT_THAT(observer.take(), IsEmpty()) << "a renewal";
    advance(2900ms);
    EXPECT_THAT(observer.take(), IsEmpty());
    advance(200ms);
    EXPECT_THAT(observer.take(), ElementsAre("removed 1.1/2 127.0.0.3:50000"));
}

TEST_F(SdServerSteps, RefusesWhatItDoesNotHave) {
    settle();
    auto otherInstance = client.subscribe(1, 1);
    otherInstance.instance = 2;
    auto otherMajor = client.subscribe(1, 1);
    otherMajor.major = 2;
    auto nowhere = client.subscribe(1, 1);
    nowhere.unicast.clear();
    auto outside = client.subscribe(1, 1);
    outside.unicast = {{0x08080808, 50000}};
    hear(client, false,
         client.byUnicast(
             {client.subscribe(9, 1), client.subscribe(1, 9), otherInstance, otherMajor, nowhere, outside}));
    EXPECT_THAT(takeSent(), ElementsAre("nack 9.1/1", "nack 1.1/9", "nack 1.2/1", "nack 1.1/1", "nack 1.1/1",
                                        "nack 1.1/1"));
    EXPECT_THAT(observer.take(), IsEmpty());
    hear(client, true, client.byMulticast({client.subscribe(1, 1)}));
    EXPECT_THAT(takeSent(), IsEmpty()) << "a subscription by multicast is not meant for it";
}

TEST_F(SdServerSteps, APolicyMayRefuseAndEndASubscription) {
    settle();
    observer.admits = false;
    hear(client, false, client.byUnicast({client.subscribe(1, 1)}));
    EXPECT_THAT(takeSent(), ElementsAre("nack 1.1/1"));
    observer.admits = true;
    hear(client, false, client.byUnicast({client.subscribe(1, 1)}));
    EXPECT_THAT(takeSent(), ElementsAre("ack 1.1/1"));
    observer.admits = false;
    hear(client, false, client.byUnicast({client.subscribe(1, 1)}));
    EXPECT_THAT(observer.take(), ElementsAre("added 1.1/1 127.0.0.3:50000", "removed 1.1/1 127.0.0.3:50000"));
}

TEST_F(SdServerSteps, StopSubscribeAndARebootedClientEndSubscriptions) {
    settle();
    hear(client, false, client.byUnicast({client.subscribe(1, 1), client.subscribe(1, 2)}));
    observer.take();
    takeSent();
    hear(client, false, client.byUnicast({client.subscribe(1, 1, 0)}));
    EXPECT_THAT(observer.take(), ElementsAre("removed 1.1/1 127.0.0.3:50000"));
    EXPECT_THAT(takeSent(), IsEmpty()) << "a stop is not answered";
    client.restart();
    hear(client, false, client.byUnicast({client.subscribe(1, 1)}));
    EXPECT_THAT(observer.take(), ElementsAre("rebooted 127.0.0.3:30490", "removed 1.1/2 127.0.0.3:50000",
                                             "added 1.1/1 127.0.0.3:50000"));
}

TEST_F(SdServerSteps, SubscribersOfOneEventgroupAreBounded) {
    settle();
    for (std::uint16_t port = 1; port <= SdServer::kMaxSubscribers + 1; ++port) {
        auto entry = client.subscribe(1, 1);
        entry.unicast = {{0x7F000003, port}};
        hear(client, false, client.byUnicast({entry}));
    }
    EXPECT_THAT(observer.take(), SizeIs(SdServer::kMaxSubscribers));
    EXPECT_EQ(takeSent().back(), "nack 1.1/1");
}

TEST_F(SdServerSteps, SaysStopOfferAndDropsTheSubscribers) {
    settle();
    offered(2);
    server().withdraw({2, 1, 1});
    collect();
    EXPECT_THAT(takeSent(), IsEmpty()) << "never announced";
    hear(client, false, client.byUnicast({client.subscribe(1, 1)}));
    takeSent();
    observer.take();
    server().withdraw(kService1);
    collect();
    EXPECT_THAT(takeSent(), ElementsAre("stop-offer 1.1"));
    EXPECT_THAT(observer.take(), ElementsAre("removed 1.1/1 127.0.0.3:50000"));
    advance(5s);
    EXPECT_THAT(takeSent(), IsEmpty());

    offered(1);
    advance(300ms);
    takeSent();
    sd.shutdown();
    collect();
    EXPECT_THAT(takeSent(), ElementsAre("stop-offer 1.1"));
}

TEST_F(SdServerSteps, MalformedMessagesAreToldAndHarmNothing) {
    settle();
    auto bytes = client.byUnicast({client.subscribe(1, 1)});
    bytes[23] = 0x11;  // length of the entries
    EXPECT_FALSE(hear(client, false, bytes));
    EXPECT_FALSE(hear(client, false, {1, 2, 3}));
    EXPECT_TRUE(hear(client, false, client.byUnicast({client.subscribe(1, 1)})));
    EXPECT_THAT(takeSent(), ElementsAre("ack 1.1/1"));
}
