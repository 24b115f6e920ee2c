#include "base/ConcurrentQueue.h"

#include "tests/support/Test.h"

#include <time.h>

#include <cerrno>

namespace {
thread_local int t_pauses = 0;  // of this thread
}  // namespace

// In place of the C library's.
extern "C" int nanosleep(const timespec* wanted, timespec* rest) {
    ++t_pauses;
    errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, rest);
    return errno == 0 ? 0 : -1;
}

namespace {

using namespace vlmTest;
using namespace vlmProd;

// A consumer in withFront() holds the lock during all tries of the producer.
TEST(ConcurrentQueue, DropsTheValueAfterTenTriesAndCountsIt) {
    kyo::Counter dropped;
    ConcurrentQueue<std::string> queue(&dropped);
    queue.put("first", 1);
    queue.withFront([&](const std::string&) {
        std::thread([&] {
            EXPECT_FALSE(queue.put("lost", 1));
            EXPECT_EQ(t_pauses, 9) << "between ten tries";
        }).join();
    });
    EXPECT_EQ(dropped.value(), 1U);
    EXPECT_EQ(queue.size(), 1U);
}

}  // namespace
