#include "bus/PubSubService.h"

#include "bus/Publisher.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

/// Records the messages that it receives.
class Receiver : public ISubscriber {
  public:
    void setEventSubscriberCallback(std::shared_ptr<EventSubscriberCallback>) override {}
    void addSubscriber(Message::MessageTopicType) override {}
    void unSubscribe(Message::MessageTopicType) override {}
    void subscribeForOnEventCallback() override {}
    void sendMessage(Message& message) override {
        if (onMessage) {
            onMessage();
        }
        payloads.add(message.getPayload().asInt());
        // A subscriber owns its copy of the message and may change it.
        message.setPayload(kyo::Json::Value(-1));
    }

    std::function<void()> onMessage;
    SharedList<int> payloads;
};

/// A bus for each test, driven by hand.
struct Bus : Test {
    void publish(int payload) {
        kyo::Json::Value value(payload);
        Message message(Message::OnEvent, value);
        bus.addMessageToQueue(message);
    }

    PubSubService bus;
    LogCapture log;
};

TEST_F(Bus, DropsAMessageThatNobodySubscribedWithOneLineAndSilentlyAfterTheLastRemoval) {
    publish(1);
    EXPECT_TRUE(bus.drainOnce());
    EXPECT_THAT(log.messages(4), ElementsAre("No subscriber for msg:0"));
    const auto receiver = std::make_shared<Receiver>();
    bus.removeSubscriber(Message::OnEvent, receiver);
    bus.addSubscriber(Message::OnEvent, receiver);
    bus.removeSubscriber(Message::OnEvent, receiver);
    bus.awakeThread();
    EXPECT_THAT(log.messages(5),
                ElementsAre("No sub found for type: 0", "Inserted new sub for type: 0",
                            "Removed sub for type: 0", "Waking up the pubsub service thread"));
    publish(1);
    EXPECT_TRUE(bus.drainOnce());
    EXPECT_THAT(log.messages(4), SizeIs(1));
}

TEST_F(Bus, DeliversEveryMessageOnceToEverySubscriberAndIsNotHeldUpByASlowOne) {
    std::atomic<bool> release{false};
    const auto slow = std::make_shared<Receiver>();
    slow->onMessage = [&] { eventually([&] { return release.load(); }); };
    const auto first = std::make_shared<Receiver>();
    const auto second = std::make_shared<Receiver>();
    for (const auto& receiver : {slow, first, first, second}) {
        bus.addSubscriber(Message::OnEvent, receiver);
    }
    publish(1);
    publish(2);
    bus.drainOnce();
    EXPECT_TRUE(eventually([&] { return first->payloads.size() == 2 && second->payloads.size() == 2; }));
    EXPECT_EQ(slow->payloads.size(), 0U);
    EXPECT_THAT(first->payloads.all(), UnorderedElementsAre(1, 2)) << "although it was added twice";
    EXPECT_THAT(second->payloads.all(), UnorderedElementsAre(1, 2)) << "each has a copy of the message";
    release = true;
    EXPECT_TRUE(eventually([&] { return slow->payloads.size() == 2; }));
}

TEST_F(Bus, WeighsAMessageThirtyTwoAndLeavesTheRestQueuedWhenItIsStopped) {
    publish(1);
    publish(2);
    EXPECT_EQ(bus.queued(), 64U);
    bus.stopThread();
    EXPECT_FALSE(bus.drainOnce());
    EXPECT_EQ(bus.queued(), 32U) << "the current message is finished first";
}

TEST(PubSubServiceThread, SleepsOnWhenItIsStoppedAndEndsAtTheNextWakeUp) {
    LogCapture log;
    PubSubService bus;
    bus.start();
    ASSERT_TRUE(
        log.waitFor("Going to wait mode in vlm pubsub service thread. There is no messages to process"));
    bus.stopThread();
    EXPECT_TRUE(bus.isRunning());
    Message message;
    EXPECT_TRUE(eventually([&] { return !bus.isRunning(); }, [&] { bus.addMessageToQueue(message); }));
    EXPECT_GE(bus.queued(), 32U) << "what woke it stays queued";
    EXPECT_FALSE(log.has(6, "Read from PubSubService Q"));
}

}  // namespace
