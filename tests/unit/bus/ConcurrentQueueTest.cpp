#include "bus/ConcurrentQueue.h"

#include <gmock/gmock.h>

#include <barrier>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bus/Message.h"
#include "kyo/Json.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;

TEST(ConcurrentQueue, GivesValuesOutInOrderAndCountsTheirWeights) {
    ConcurrentQueue<std::string> queue;
    std::string value = "untouched";
    EXPECT_FALSE(queue.take(&value));
    EXPECT_FALSE(queue.front(&value));
    EXPECT_FALSE(queue.back(&value));
    EXPECT_EQ(value, "untouched");

    EXPECT_TRUE(queue.put("one", 5));
    EXPECT_TRUE(queue.put("two", 0));
    EXPECT_TRUE(queue.put("three", 7));
    EXPECT_EQ(queue.size(), 12U);
    EXPECT_TRUE(queue.front(&value));
    EXPECT_EQ(value, "one");
    EXPECT_TRUE(queue.back(&value));
    EXPECT_EQ(value, "three");
    EXPECT_EQ(queue.size(), 12U) << "looking removes nothing";

    std::vector<std::string> taken;
    while (queue.take(&value)) {
        taken.push_back(value);
    }
    EXPECT_THAT(taken, ElementsAre("one", "two", "three"));
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_TRUE(queue.put("again", 1)) << "an emptied queue takes values again";
    EXPECT_TRUE(queue.back(&value));
    EXPECT_EQ(value, "again");
}

TEST(ConcurrentQueue, KeepsACopyThatLaterChangesOfTheOriginalDoNotReach) {
    ConcurrentQueue<kyo::Json::Value> queue;
    kyo::Json::Value record;
    record["a"] = 1;
    queue.put(record, 24);
    record["a"] = 2;
    kyo::Json::Value taken;
    ASSERT_TRUE(queue.take(&taken));
    EXPECT_EQ(taken["a"].asInt(), 1);
}

// A consumer that sits in withFront() holds the lock for as long as the producer tries.
TEST(ConcurrentQueue, GivesTheValueUpAfterTenTriesAndCountsIt) {
    kyo::Counter dropped;
    ConcurrentQueue<std::string> queue(&dropped);
    queue.put("first", 1);
    bool put = true;
    std::chrono::steady_clock::duration tried{};
    queue.withFront([&](const std::string&) {
        std::thread producer([&] {
            const auto begin = std::chrono::steady_clock::now();
            put = queue.put("lost", 1);
            tried = std::chrono::steady_clock::now() - begin;
        });
        producer.join();
    });
    EXPECT_FALSE(put);
    EXPECT_GE(tried, std::chrono::microseconds(900))
        << "nine pauses of 100 microseconds lie between ten tries";
    EXPECT_EQ(dropped.value(), 1U);
    EXPECT_EQ(queue.size(), 1U);
    EXPECT_TRUE(queue.put("next", 1)) << "the queue goes on";
}

// The producers race each other and the one consumer, who takes while they put.
TEST(ConcurrentQueue, KeepsEachProducersOrderAndLosesOnlyWhatItCounts) {
    constexpr int kProducers = 4;
    constexpr int kValues = 20000;
    kyo::Counter dropped;
    ConcurrentQueue<std::pair<int, int>> queue(&dropped);
    std::atomic<int> refused{0};
    std::atomic<int> running{kProducers};
    std::barrier start(kProducers + 1);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            start.arrive_and_wait();
            for (int i = 1; i <= kValues; ++i) {
                if (!queue.put({p, i}, 2)) {
                    ++refused;
                }
            }
            --running;
        });
    }
    start.arrive_and_wait();
    std::map<int, int> last;
    int received = 0;
    std::pair<int, int> value;
    for (bool done = false; !done;) {
        done = running == 0;
        while (queue.take(&value)) {
            ASSERT_GT(value.second, last[value.first]) << "of producer " << value.first;
            last[value.first] = value.second;
            ++received;
        }
    }
    for (auto& producer : producers) {
        producer.join();
    }
    EXPECT_EQ(received + refused, kProducers * kValues);
    EXPECT_EQ(dropped.value(), static_cast<std::uint64_t>(refused));
    EXPECT_EQ(queue.size(), 0U);
}

TEST(Message, IsATickWithoutPayloadUnlessSaidOtherwise) {
    Message message;
    EXPECT_EQ(message.getTopic(), Message::OnEvent);
    EXPECT_TRUE(message.getPayload().isNull());
    EXPECT_EQ(message.size(), 4U) << "null";

    kyo::Json::Value payload;
    payload["k"] = "v";
    Message full(Message::OnEvent, payload);
    payload["k"] = "changed";
    EXPECT_EQ(full.getPayload()["k"].asString(), "v");
    EXPECT_EQ(full.size(), std::string(R"({"k":"v"})").size());
}

}  // namespace
}  // namespace vlmProd
