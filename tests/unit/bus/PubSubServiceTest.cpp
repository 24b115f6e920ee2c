#include "bus/PubSubService.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "bus/Publisher.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using vlmTest::eventually;
using vlmTest::LogCapture;

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
        const std::lock_guard<std::mutex> lock(m_guard);
        m_payloads.push_back(message.getPayload().asInt());
        // A subscriber owns its copy of the message and may change it.
        message.setPayload(kyo::Json::Value(-1));
    }

    std::vector<int> payloads() {
        const std::lock_guard<std::mutex> lock(m_guard);
        return m_payloads;
    }

    std::function<void()> onMessage;

  private:
    std::mutex m_guard;
    std::vector<int> m_payloads;
};

/// A bus for each test, driven by hand.
class Bus : public testing::Test {
  protected:
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
    bus.addSubscriber(Message::OnEvent, receiver);
    bus.removeSubscriber(Message::OnEvent, receiver);
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
    EXPECT_TRUE(eventually([&] { return first->payloads().size() == 2 && second->payloads().size() == 2; }));
    EXPECT_THAT(slow->payloads(), SizeIs(0));
    EXPECT_THAT(first->payloads(), UnorderedElementsAre(1, 2)) << "although it was added twice";
    EXPECT_THAT(second->payloads(), UnorderedElementsAre(1, 2)) << "each has a copy of the message";
    release = true;
    EXPECT_TRUE(eventually([&] { return slow->payloads().size() == 2; }));
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

// Bus thread, publisher and a late subscription run concurrently. The process's bus is never destroyed.
TEST(PubSubService, DeliversWhatThePublisherPutsWhileSubscribersAreAdded) {
    LogCapture log(0);
    auto& bus = PubSubService::getInstance();
    bus.start();
    const auto subscriber = std::make_shared<EventSubscriber>();
    const auto callback = std::make_shared<EventSubscriberCallback>();
    std::atomic<int> ticks{0};
    callback->setOnEventCallback([&ticks](Message message) {
        if (message.getTopic() == Message::OnEvent && message.getPayload().isNull()) {
            ++ticks;
        }
    });
    subscriber->setEventSubscriberCallback(callback);
    subscriber->addSubscriber(Message::OnEvent);
    std::vector<std::shared_ptr<Receiver>> late;
    EventPublisher publisher;
    for (int i = 0; i < 50; ++i) {
        Message tick;
        publisher.publishMessage(tick);
        late.push_back(std::make_shared<Receiver>());
        bus.addSubscriber(Message::OnEvent, late.back());
    }
    // A message published just before the thread sleeps waits for the next wake-up.
    EXPECT_TRUE(eventually([&] { return ticks == 50; }, [&] { bus.awakeThread(); }));
    for (const auto& receiver : late) {
        bus.removeSubscriber(Message::OnEvent, receiver);
    }
    callback->setOnEventCallback([](Message) {});
}

}  // namespace
}  // namespace vlmProd
