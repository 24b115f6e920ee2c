// kyo::Thread; meant for the thread sanitizer.
#include "kyo/Thread.h"

#include "kyo/Event.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;

struct Worker : kyo::Thread {
    explicit Worker(std::function<void(Worker&)> given) : body(std::move(given)) {}
    void run() override {
        body(*this);
        ++runs;
    }
    const std::function<void(Worker&)> body;
    std::atomic<int> runs{0};
};

TEST(Thread, ASecondStartDoesNothingAndJoinWaitsForTheEnd) {
    kyo::Event go;
    Worker worker([&](Worker&) { go.wait(); });
    worker.start();
    worker.start();
    go.set();
    worker.join();
    worker.start();
    worker.join();
    EXPECT_EQ(worker.runs, 1);
}

// run() detaches its own thread, possibly before start() has returned.
TEST(Thread, ManyWorkersMayDetachThemselves) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 50; ++i) {
        workers.push_back(std::make_unique<Worker>([](Worker& self) { self.detach(); }));
        workers.back()->start();
    }
    for (const auto& worker : workers) {
        EXPECT_TRUE(eventually([&] { return worker->runs == 1; }));
    }
}

}  // namespace
