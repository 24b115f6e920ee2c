#include "log/LineQueue.h"

#include "tests/support/Test.h"

#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <deque>
#include <random>

using namespace vlmTest;
using namespace kyo;

TEST(LineQueue, IsFullByLinesOrByBytesAndHasRoomAgainOnceDrained) {
    const std::string text(900, 'x');
    for (const bool byLines : {true, false}) {
        LineQueue queue(byLines ? 2 : 1000, byLines ? 1u << 20 : 2000);
        EXPECT_TRUE(queue.push(text, 1));
        EXPECT_TRUE(queue.push(text, 2));
        EXPECT_FALSE(queue.push(text, 3));
        EXPECT_EQ(queue.push("z", 4), !byLines);
        LineBuffer out;
        queue.drain(out);
        ASSERT_EQ(out.lines(), byLines ? 2u : 3u);
        out.pop();
        EXPECT_EQ(out.front().text, text);
        EXPECT_EQ(out.front().level, 2);
        EXPECT_TRUE(queue.push(text, 5));
        queue.drain(out);
        EXPECT_EQ(out.lines(), 1u);
    }
}

// Short lines fill many blocks, a long line has its own; by turns the buffer fills and becomes empty.
TEST(LineBuffer, KeepsLinesOfAnyLengthInOrder) {
    LineBuffer buffer;
    std::deque<std::string> expected;
    std::size_t bytes = 0;
    std::mt19937 chance(20260101);
    for (int step = 0, read = 0; step < 30'000; ++step) {
        if (chance() % 10 < (step % 2000 < 1000 ? 8u : 1u)) {
            expected.emplace_back(chance() % 97 == 0 ? 200'000 : chance() % 500,
                                  static_cast<char>('a' + step % 26));
            bytes += LineBuffer::weight(expected.back().size());
            const int number = read + static_cast<int>(expected.size());
            buffer.append({expected.back(), number, static_cast<std::uint8_t>(number % 7)});
        } else if (!expected.empty()) {
            const kyo::LogLine line = buffer.front();
            ASSERT_EQ(line.text, expected.front());
            ASSERT_EQ(line.uptimeNs, ++read);
            ASSERT_EQ(line.level, read % 7);
            bytes -= LineBuffer::weight(line.text.size());
            expected.pop_front();
            buffer.pop();
        }
        ASSERT_EQ(buffer.lines(), expected.size());
        ASSERT_EQ(buffer.bytes(), bytes);
    }
}

TEST(LineQueue, NothingIsLostOrDoubledBetweenManyProducersAndASleepyConsumer) {
    constexpr int kProducers = 4;
    constexpr int kEach = 3000;
    LineQueue queue(kProducers * kEach, 64u << 20);
    std::atomic<int> finished{0};
    Together producers(kProducers, [&](int p) {
        for (int i = 0; i < kEach; ++i) {
            EXPECT_TRUE(queue.push(std::to_string(i), static_cast<std::uint8_t>(p)));
        }
        finished.fetch_add(1);
        queue.wake();
    });
    std::vector<int> next(kProducers, 0);
    LineBuffer out;
    const auto take = [&] {
        queue.drain(out);
        const bool any = !out.empty();
        for (; !out.empty(); out.pop()) {
            EXPECT_EQ(out.front().text, std::to_string(next.at(out.front().level)++));
        }
        return any;
    };
    pollfd wait{queue.wakeDescriptor(), POLLIN, 0};
    while (finished.load() < kProducers) {
        if (!take() && queue.prepareSleep()) {
            ASSERT_EQ(::poll(&wait, 1, 20'000), 1) << "a wake-up was lost";
            queue.finishSleep();
        }
    }
    producers.join();
    take();
    queue.finishSleep();
    EXPECT_TRUE(queue.push("nobody sleeps", 0));
    EXPECT_EQ(::poll(&wait, 1, 0), 0);
    EXPECT_EQ(next, std::vector<int>(kProducers, kEach));
}

namespace {

LineQueue* g_interrupted = nullptr;
std::atomic<int> g_handled{0};

void logFromHandler(int) {
    const int before = errno;
    g_interrupted->push({}, 1);  // without a text: a handler must not allocate
    g_handled.fetch_add(1);
    errno = before;
}

}  // namespace

// push() allocates only if its flag shows that the interrupted thread was not inside; the thread sanitizer
// does not know that.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}

// The handler interrupts a thread that may hold the queue's lock. If the handler waited for it, this test
// would hang.
TEST(LineQueue, AHandlerThatInterruptsALoggingThreadDropsItsLineInsteadOfWaiting) {
    LineQueue queue(1u << 20, 512u << 20);
    g_interrupted = &queue;
    const auto before = std::signal(SIGUSR1, logFromHandler);
    std::atomic<bool> stop{false};
    std::thread worker([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            queue.push({}, 5);
        }
    });
    LineBuffer out;
    int sent = 0;
    const bool answered = eventually([&] { return g_handled.load() >= 300; },
                                     [&] {
                                         ::pthread_kill(worker.native_handle(), SIGUSR1);
                                         ++sent;
                                         queue.drain(out);
                                     });
    stop.store(true);
    worker.join();
    std::signal(SIGUSR1, before);
    EXPECT_TRUE(answered) << g_handled.load() << " of " << sent;
}
