// Stops and the main loop. Each test runs in a process of its own, since signals belong to the process.
#include "app/StopSignals.h"

#include <botan/hash.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "app/ProcessEnd.h"
#include "tests/support/Test.h"

// The handler logs only when it interrupts the wait, where the thread holds no lock and is outside the
// allocator. The thread sanitizer would report it nevertheless.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}

namespace {

using namespace vlmTest;
using std::chrono::seconds;
using vlmProd::exitRequested;

struct StandardErrorLogger : kyo::ProductLogger {
    void logData(std::string message, kyo::LogLevel level) override {
        std::cerr << level << ' ' << message << '\n';
    }
};

void prepare() {
    vlmProd::blockStopSignals();
    kyo::Log::setProductLogger(new StandardErrorLogger);
    kyo::Log::setReportingLevel(7);
    vlmProd::installSignalHandlers();
}

struct StopSignals : Test {
    StopSignals() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(StopSignals, AreTheOnlyOnesThatEndTheWaitEarly) {
    EXPECT_EXIT(
        {
            prepare();
            ::signal(SIGALRM, [](int) {});
            ::ualarm(50000, 50000);
            const auto begin = std::chrono::steady_clock::now();
            vlmProd::waitForStopSignal(seconds(1));
            const bool whole = std::chrono::steady_clock::now() - begin >= seconds(1);
            std::_Exit(whole && !exitRequested() ? 0 : 1);
        },
        ExitedWithCode(0), "^$");
}

struct AbortingLogger : kyo::ProductLogger {
    void logData(std::string /*message*/, kyo::LogLevel /*level*/) override { std::abort(); }
};

// The aborting thread is inside the log: a handler that logs would block or recurse.
TEST_F(StopSignals, RaisedByAnAbortInsideTheLogNeitherHangNorLog) {
    EXPECT_EXIT(
        {
            prepare();
            kyo::Log::setProductLogger(new AbortingLogger);
            std::thread([] { kyo::Log().get(5) << "the last line"; }).detach();
            vlmProd::waitForStopSignal(seconds(600));
            std::_Exit(1);
        },
        KilledBySignal(SIGABRT), "^void signal_handler\\(int32_t\\) SIGNAL HANDLER HAPPENED= 6\n$");
}

TEST_F(StopSignals, EndAProcessWhoseThreadsComputeDigestsUntilThen) {
    for (int turn = 0; turn < 10; ++turn) {
        EXPECT_EXIT(
            {
                vlmProd::skipDestructorsAtExit();
                std::atomic<int> digests{0};
                for (int i = 0; i < 2; ++i) {
                    std::thread([&digests] {
                        for (;; ++digests) {
                            Botan::HashFunction::create_or_throw("SHA-256")->process("text");
                        }
                    }).detach();
                }
                while (digests < 100) {
                    std::this_thread::yield();
                }
                std::exit(0);
            },
            ExitedWithCode(0), "^$");
    }
}

}  // namespace
