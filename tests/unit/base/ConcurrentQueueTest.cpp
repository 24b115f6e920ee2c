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

namespace vlmProd {
namespace {

using namespace vlmTest;

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

// The producers run concurrently with each other and with the one consumer.
TEST(ConcurrentQueue, KeepsEachProducersOrderAndLosesOnlyWhatItCounts) {
    constexpr int kProducers = 4;
    constexpr int kValues = 20000;
    kyo::Counter dropped;
    ConcurrentQueue<std::pair<int, int>> queue(&dropped);
    std::atomic<int> refused{0};
    Together producers(kProducers, [&](int p) {
        for (int i = 1; i <= kValues; ++i) {
            if (!queue.put({p, i}, 2)) {
                ++refused;
            }
        }
    });
    std::map<int, int> last;
    int received = 0;
    std::pair<int, int> value;
    for (bool done = false; !done;) {
        done = !producers.running();
        while (queue.take(&value)) {
            ASSERT_GT(value.second, last[value.first]) << "of producer " << value.first;
            last[value.first] = value.second;
            ++received;
        }
    }
    EXPECT_EQ(received + refused, kProducers * kValues);
    EXPECT_EQ(dropped.value(), static_cast<std::uint64_t>(refused));
    EXPECT_EQ(queue.size(), 0U);
}

}  // namespace
}  // namespace vlmProd
