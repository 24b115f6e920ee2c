#include "collect/IngressQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>

#include "app/JsonFields.h"
#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/collect/Records.h"

namespace vlmProd {
namespace {

using kyo::Json::Value;
using vlmTest::LogCapture;
using vlmTest::recordAt;

/// Where dispatched records end. Shared with the dispatch threads.
class Sink {
  public:
    void take(const TextedRecord& record) {
        const std::lock_guard<std::mutex> lock(m_guard);
        m_stamps.insert(record.timestamp);
    }
    std::size_t size() {
        const std::lock_guard<std::mutex> lock(m_guard);
        return m_stamps.size();
    }

  private:
    std::mutex m_guard;
    std::set<std::int64_t> m_stamps;
};

TEST(IngressQueue, WeighsARecordWithTheLengthOfItsTextAndDropsTheOneThatItTakesAfterTheStop) {
    LogCapture log;
    Sink sink;
    IngressQueue queue([&sink](const TextedRecord& record) { sink.take(record); });
    Value record = recordAt(5);
    const std::string json = compactText(record);
    queue.insertRecord(record);
    EXPECT_EQ(log.lines().front().signature, "void vlmProd::IngressQueue::insertRecord(kyo::Json::Value&)");
    EXPECT_EQ(record, recordAt(5)) << "the caller's record stays as it is";
    Value tiny;
    queue.insertRecord(tiny);
    EXPECT_EQ(queue.queuedBytes(), json.size() + 4) << "null";
    queue.stopIngressQueueThread();
    EXPECT_FALSE(queue.drainOnce());
    EXPECT_EQ(queue.queuedBytes(), 4U);
    EXPECT_EQ(sink.size(), 0U);
}

TEST(IngressQueueThread, DispatchesAllThatWasPutWhileItSleptAfterOneWakeUpAndEnds) {
    LogCapture log;
    const auto sink = std::make_shared<Sink>();
    auto* const queue = new IngressQueue([sink](const TextedRecord& record) { sink->take(record); });
    queue->start();
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Ingress queue."));
    EXPECT_TRUE(log.has(5, "Started IngressQueue consumer"));
    const auto& dropped = kyo::Status::counter("queue.ingress.dropped");
    const auto expected = 100 + dropped.value();
    for (int i = 0; i < 100; ++i) {
        Value record = recordAt(static_cast<unsigned long long>(i));
        queue->insertRecord(record);
    }
    EXPECT_TRUE(vlmTest::eventually([&] { return sink->size() + dropped.value() == expected; },
                                    [&] { queue->SendWakeupSignal(); }));
    EXPECT_EQ(log.count(5, "From ingress Q~"), sink->size()) << "none twice";
    queue->releaseIngressQueue();  // ends the thread, then the object
}

}  // namespace
}  // namespace vlmProd
