#include "collect/IngressQueue.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <barrier>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "app/JsonFields.h"
#include "config/ConfigResponseHandler.h"
#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/collect/Records.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using testing::ElementsAre;
using testing::SizeIs;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::recordAt;

/// Where dispatched records end. Shared with the dispatch threads.
struct Sink {
    void take(TextedRecord record) {
        const std::lock_guard<std::mutex> lock(guard);
        stamps.push_back(static_cast<int>(record.timestamp));
        threads.push_back(std::this_thread::get_id());
    }
    std::size_t size() {
        const std::lock_guard<std::mutex> lock(guard);
        return stamps.size();
    }
    std::mutex guard;
    std::vector<int> stamps;
    std::vector<std::thread::id> threads;
};

class IngressQueueTest : public testing::Test {
  protected:
    const std::shared_ptr<Sink> sink = std::make_shared<Sink>();
    IngressQueue queue{[to = sink](TextedRecord record) { to->take(std::move(record)); }};
};

TEST_F(IngressQueueTest, WeighsARecordWithTheLengthOfItsText) {
    Value record = recordAt(5);
    queue.insertRecord(record);
    EXPECT_EQ(queue.queuedBytes(), compactText(record).size());
    EXPECT_EQ(record, recordAt(5)) << "the caller's record stays as it is";
    Value tiny;
    queue.insertRecord(tiny);
    EXPECT_EQ(queue.queuedBytes(), compactText(record).size() + 4) << "null";
    TextedRecord taken;
    ASSERT_TRUE(queue.takeRecord(&taken));
    EXPECT_EQ(taken.text, compactText(record));
    EXPECT_EQ(taken.collectorName, "position");
    EXPECT_EQ(taken.timestamp, 5);
    EXPECT_EQ(queue.queuedBytes(), 4U);
}

TEST_F(IngressQueueTest, TellsTheInsertionInItsOrder) {
    LogCapture log;
    Value record = recordAt(5);
    const std::string json = compactText(record);
    queue.insertRecord(record);
    EXPECT_THAT(log.messages(5),
                ElementsAre("record len~" + std::to_string(json.size()), "Record Json = " + json,
                            "collectorname :: insertrecordposition"));
    EXPECT_EQ(log.lines().front().level, 7) << "an entry trace comes first";
    EXPECT_EQ(log.lines().front().signature, "void vlmProd::IngressQueue::insertRecord(kyo::Json::Value&)");
}

TEST_F(IngressQueueTest, DispatchesEachRecordOnAThreadOfItsOwn) {
    LogCapture log;
    for (int t = 1; t <= 20; ++t) {
        Value record = recordAt(t);
        queue.insertRecord(record);
    }
    EXPECT_TRUE(queue.drainOnce());
    ASSERT_TRUE(eventually([&] { return sink->size() == 20; }));
    EXPECT_EQ(log.count(5, "From ingress Q~"), 20U);
    std::sort(sink->stamps.begin(), sink->stamps.end());
    for (int t = 1; t <= 20; ++t) {
        EXPECT_EQ(sink->stamps[t - 1], t);
    }
    EXPECT_THAT(sink->threads, testing::Not(testing::Contains(std::this_thread::get_id())));
    EXPECT_EQ(queue.queuedBytes(), 0U);
}

TEST_F(IngressQueueTest, DropsTheRecordThatItTakesAfterTheStop) {
    Value record = recordAt(1);
    queue.insertRecord(record);
    queue.insertRecord(record);
    queue.stopIngressQueueThread();
    EXPECT_FALSE(queue.drainOnce());
    EXPECT_EQ(queue.queuedBytes(), compactText(record).size());
    EXPECT_THAT(sink->stamps, SizeIs(0));
}

// Producers of several middleware threads race the consumer and its dispatch threads.
TEST(IngressQueueThread, DeliversAllThatWasPutWhileItSleptAfterOneWakeUp) {
    LogCapture log;
    const auto sink = std::make_shared<Sink>();
    auto* const queue = new IngressQueue([sink](TextedRecord record) { sink->take(std::move(record)); });
    queue->start();
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Ingress queue."));
    EXPECT_TRUE(log.has(5, "Started IngressQueue consumer"));
    const auto droppedBefore = kyo::Status::counter("queue.ingress.dropped").value();
    constexpr int kProducers = 4;
    constexpr int kRecords = 100;
    std::barrier start(kProducers);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kRecords; ++i) {
                Value record = recordAt(i);
                queue->insertRecord(record);
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    const auto dropped = [&] {
        return kyo::Status::counter("queue.ingress.dropped").value() - droppedBefore;
    };
    EXPECT_TRUE(eventually([&] { return sink->size() + dropped() == kProducers * kRecords; },
                           [&] { queue->SendWakeupSignal(); }));
    EXPECT_TRUE(log.has(7, "Awaken Inress queue thread to process records"));
    queue->releaseIngressQueue();  // ends the thread, then the object
}

TEST(Dispatch, DropsARecordWhoseCollectorIsNotKnown) {
    LogCapture log;
    auto& counter = kyo::Status::counter("records.withoutCollector");
    const auto before = counter.value();
    IngressQueue queue;
    Value unknown = recordAt(1);
    Value empty = recordAt(2);
    empty["collectorName"] = "";
    Value without = recordAt(3);
    without.removeMember("collectorName");
    Value wrong = recordAt(4);
    wrong["collectorName"] = Value(kyo::Json::arrayValue);
    for (Value* record : {&unknown, &empty, &without, &wrong}) {
        queue.insertRecord(*record);
    }
    queue.drainOnce();
    EXPECT_TRUE(eventually([&] { return counter.value() == before + 4; }));
    EXPECT_EQ(log.count(3, "Collector name is not found, dropping the record"), 4U);
}

}  // namespace
}  // namespace vlmProd
