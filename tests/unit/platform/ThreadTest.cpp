// Threads, events and conditions of the support library; the thread sanitizer watches these tests.
#include "kyo/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "kyo/Event.h"
#include "kyo/Mutex.h"
#include "kyo/ThreadCondition.h"
#include "tests/support/Eventually.h"

using vlmTest::eventually;

namespace {

class Worker : public kyo::Thread {
  public:
    explicit Worker(std::function<void(Worker&)> body) : m_body(std::move(body)) {}
    void run() override {
        m_body(*this);
        runs.fetch_add(1);
    }
    std::atomic<int> runs{0};

  private:
    std::function<void(Worker&)> m_body;
};

}  // namespace

TEST(Thread, ASecondStartDoesNothingAndJoinWaitsForTheEnd) {
    kyo::Event go;
    Worker worker([&](Worker&) { go.wait(); });
    worker.start();
    worker.start();
    go.set();
    worker.join();
    EXPECT_EQ(worker.runs.load(), 1);
    worker.start();
    worker.join();
    EXPECT_EQ(worker.runs.load(), 1);
}

// run() detaches its own thread while start() may not have returned yet.
TEST(Thread, ManyWorkersMayDetachThemselves) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 50; ++i) {
        workers.push_back(std::make_unique<Worker>([](Worker& self) { self.detach(); }));
        workers.back()->start();
    }
    for (const auto& worker : workers) {
        EXPECT_TRUE(eventually([&] { return worker->runs.load() == 1; }));
    }
}

TEST(Event, StaysSetForThoseWhoComeLaterUntilItIsReset) {
    auto* const event =
        new kyo::Event;  // waited on by a thread that may still be in wait() when this test ends
    std::atomic<int> passed{0};
    Worker first([&](Worker&) {
        event->wait();
        passed.fetch_add(1);
    });
    first.start();
    event->set();
    first.join();
    event->wait();
    event->reset();
    Worker second([&](Worker&) {
        event->wait();
        passed.fetch_add(1);
    });
    second.start();
    EXPECT_EQ(passed.load(), 1);
    event->set();
    second.join();
    EXPECT_EQ(passed.load(), 2);
    delete event;
}

TEST(ThreadCondition, ABroadcastWithoutAWaiterIsLostAndALimitedWaitEnds) {
    kyo::Mutex mutex;
    kyo::ThreadCondition condition;
    condition.broadcast();
    mutex.lock();
    EXPECT_FALSE(condition.waitFor(mutex, std::chrono::milliseconds(20)));
    mutex.unlock();

    std::atomic<int> woken{0};
    Worker waiter([&](Worker&) {
        mutex.lock();
        condition.wait(mutex);
        woken.fetch_add(1);
        mutex.unlock();
    });
    waiter.start();
    EXPECT_TRUE(eventually([&] { return woken.load() == 1; }, [&] { condition.broadcast(); }));
    waiter.join();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
}
