// kyo::Thread; meant for the thread sanitizer.
#include "kyo/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "kyo/Event.h"
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

// run() detaches its own thread, possibly before start() has returned.
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
