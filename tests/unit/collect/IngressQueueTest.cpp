#include "collect/IngressQueue.h"

#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

Value recordAt(int timestamp) {
    return valueOf(R"({"collectorName":"position","timestamp":)" + std::to_string(timestamp) + "}");
}

TEST(IngressQueue, WeighsARecordWithTheLengthOfItsTextAndDropsTheOneThatItTakesAfterTheStop) {
    const LogCapture log;
    IngressQueue queue;
    queue.setDispatch([](const Record&) { ADD_FAILURE() << "dispatched after the stop"; });
    Value record = recordAt(5);
    queue.insertRecord(record);
    EXPECT_EQ(record, recordAt(5)) << "the caller's record stays as it is";
    Value tiny;
    queue.insertRecord(tiny);
    EXPECT_EQ(queue.queuedBytes(), compactText(record).size() + 4) << "null";
    queue.stopIngressQueueThread();
    EXPECT_TRUE(log.has(5, "Waking up Ingress queue thread to process the record"));
    EXPECT_FALSE(queue.drainOnce());
    EXPECT_EQ(queue.queuedBytes(), 4U);
}

TEST(IngressQueueThread, DispatchesAllThatWasPutWhileItSleptAfterOneWakeUpAndEnds) {
    const LogCapture log;
    // Shared with the dispatch threads.
    const auto dispatched = std::make_shared<std::atomic<std::uint64_t>>(0);
    auto* const queue = new IngressQueue;
    queue->setDispatch([dispatched](const Record&) { ++*dispatched; });
    queue->start();
    ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to process in Ingress queue."));
    const auto& dropped = kyo::Status::counter("queue.ingress.dropped");
    const auto expected = 100 + dropped.value();
    for (int i = 0; i < 100; ++i) {
        Value record = recordAt(i);
        queue->insertRecord(record);
    }
    EXPECT_TRUE(eventually([&] { return *dispatched + dropped.value() == expected; },
                           [&] { queue->SendWakeupSignal(); }));
    EXPECT_EQ(log.count(5, "From ingress Q~"), *dispatched) << "none twice";
    queue->releaseIngressQueue();  // ends the thread, then the object
}

}  // namespace
