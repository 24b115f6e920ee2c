#include "log/LineQueue.h"

#include "tests/support/Test.h"

#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>

using namespace vlmTest;
using kyo::LineBuffer;
using kyo::LineQueue;

TEST(LineQueue, IsFullByLinesAndByBytesAndHasRoomAgainOnceDrained) {
    LineQueue byLines(2, 1u << 20);
    EXPECT_TRUE(byLines.push("a", 1));
    EXPECT_TRUE(byLines.push("b", 2));
    EXPECT_FALSE(byLines.push("c", 3));
    LineBuffer out;
    byLines.drain(out);
    ASSERT_EQ(out.lines(), 2u);
    out.pop();
    EXPECT_EQ(out.front().text, "b");
    EXPECT_EQ(out.front().level, 2);
    EXPECT_TRUE(byLines.push("d", 4));
    byLines.drain(out);
    ASSERT_EQ(out.lines(), 1u);
    EXPECT_EQ(out.front().text, "d");

    LineQueue byBytes(1000, 2000);
    EXPECT_TRUE(byBytes.push(std::string(1500, 'x'), 5));
    EXPECT_FALSE(byBytes.push(std::string(1500, 'y'), 5));
    EXPECT_TRUE(byBytes.push("z", 5));
}

// Short lines fill many blocks, a long line has its own block, and reading happens in between.
TEST(LineBuffer, KeepsTheOrderOfLinesOfAnyLengthWhileItIsReadAndFilledInTurn) {
    LineBuffer buffer;
    std::size_t written = 0;
    std::size_t read = 0;
    std::size_t bytes = 0;
    const auto text = [](std::size_t number) {
        return std::string(number % 97 == 0 ? 200'000 : number % 500, static_cast<char>('a' + number % 26));
    };
    // A long line may be the first after the buffer was emptied.
    buffer.append({"short", 0, 1});
    buffer.pop();
    buffer.append({text(0), 1, 2});
    EXPECT_EQ(buffer.front().text, text(0));
    buffer.pop();
    EXPECT_EQ(buffer.bytes(), 0u);
    for (std::size_t round = 0; round < 40; ++round) {
        for (std::size_t i = 0; i < 100 + round * 10; ++i, ++written) {
            buffer.append(
                {text(written), static_cast<std::int64_t>(written), static_cast<std::uint8_t>(written % 7)});
            bytes += LineBuffer::weight(text(written).size());
        }
        ASSERT_EQ(buffer.bytes(), bytes);
        for (std::size_t i = 0; (i < 250 || round == 39) && !buffer.empty(); ++i, ++read) {
            const kyo::LogLine line = buffer.front();
            ASSERT_EQ(line.text, text(read));
            ASSERT_EQ(line.uptimeNs, static_cast<std::int64_t>(read));
            ASSERT_EQ(line.level, read % 7);
            bytes -= LineBuffer::weight(line.text.size());
            buffer.pop();
        }
        ASSERT_EQ(buffer.lines(), written - read);
    }
    EXPECT_EQ(read, written);
    EXPECT_EQ(buffer.bytes(), 0u);
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
