/// Permitted actions of receive handlers, and shutting down while they run.
#include "Bench.h"
#include "kyo/Event.h"

using namespace vlmTest;

namespace {

/// Each test ends its subscription itself, since handlers use local variables of the test.
struct Handlers : ClientAndServer {
    void SetUp() override { startBoth(); }
    bool subscribe(std::function<void(std::vector<Reading>)> handler) {
        client.subscribe(std::move(handler));
        return eventually([&] { return server.readings.subscribers() == 1; });
    }
};

}  // namespace

TEST_F(Handlers, MayBeReplacedUnsubscribeOrDestroyTheirOwnProxy) {
    std::atomic<int> first{0};
    std::atomic<int> calls{0};
    ASSERT_TRUE(subscribe([&](std::vector<Reading>) { ++first; }));
    server.readings.Send({numbered(0)});
    ASSERT_TRUE(eventually([&] { return first == 1; }));
    client.readings->Subscribe([&](std::vector<Reading>) {
        client.readings->Unsubscribe();
        ++calls;
    });
    server.readings.Send({numbered(1)});
    ASSERT_TRUE(eventually([&] { return calls == 1 && server.readings.subscribers() == 0; }));
    EXPECT_EQ(first, 1);
    EXPECT_FALSE(client.readings->Subscribe(nullptr));
    ASSERT_TRUE(subscribe([&](std::vector<Reading>) {
        client.readings.reset();
        client.proxy.reset();
        ++calls;
    }));
    server.readings.Send({numbered(2)});
    EXPECT_TRUE(eventually([&] { return calls == 2 && server.readings.subscribers() == 0; }));
    client.readings.reset();
}

TEST_F(Handlers, MaySubscribeAnotherEventSendAndEndTheMiddleware) {
    std::atomic<bool> ended{false};
    std::unique_ptr<ac::com::ProxyEvent<Reading>> alarms;
    ASSERT_TRUE(subscribe([&](std::vector<Reading>) {
        if (alarms == nullptr) {
            alarms = std::make_unique<ac::com::ProxyEvent<Reading>>(*client.proxy, kAlarms);
            alarms->Subscribe([&](std::vector<Reading>) {
                clientSide.stop();
                ended = true;
            });
        }
        server.alarms.Send({numbered(1)});
    }));
    EXPECT_TRUE(eventually([&] { return ended.load(); }, [&] { server.readings.Send({numbered(1)}); }));
    EXPECT_FALSE(clientSide.networkIsUp());
    client.readings.reset();
}

TEST_F(Handlers, WhatAHandlerOwnsEndsWithItsSubscription) {
    struct Owned {
        explicit Owned(someip::Runtime& middleware) : runtime(middleware) {}
        ~Owned() { runtime.findService(kMeter, 1); }  // takes the middleware's lock
        someip::Runtime& runtime;
    };
    auto owned = std::make_shared<Owned>(clientSide);
    const std::weak_ptr<Owned> watched = owned;
    ASSERT_TRUE(subscribe([owned = std::move(owned)](std::vector<Reading>) {}));
    client.readings.reset();
    EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

TEST_F(Handlers, AStopDoesNotWaitForOneThatNeverReturnsAndCallsNoMore) {
    kyo::Event mayEnd;
    std::atomic<int> calls{0};
    ASSERT_TRUE(subscribe([&](std::vector<Reading>) {
        ++calls;
        mayEnd.wait();
    }));
    server.readings.Send({numbered(1)});
    server.readings.Send({numbered(2)});
    ASSERT_TRUE(eventually([&] { return calls == 1; }));
    clientSide.stop(50ms);
    EXPECT_TRUE(log.hasPart(3, "A receive handler does not return"));
    // A restart has a new thread; the remaining one ends with its handler.
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    mayEnd.set();
    EXPECT_TRUE(eventually([&] { return calls >= 2; }, [&] { server.readings.Send({numbered(3)}); }));
    client.readings.reset();
}

// Beside the middleware's own threads.
TEST(HandlersUnderStress, NoneIsCalledAfterItsEnd) {
    const LogCapture log{3};
    someip::Runtime runtime;
    ASSERT_TRUE(runtime.start(settingsFor(1), true));
    MeterServer server(runtime);
    server.base.OfferService();
    std::atomic<bool> over{false};
    std::atomic<int> received{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            ac::com::ProxyBase proxy(kMeter, {kMeter.serviceId, 1, kMeter.majorVersion}, runtime);
            while (!over) {
                auto alive = std::make_shared<std::atomic<bool>>(true);
                ac::com::ProxyEvent<Reading> readings(proxy, kReadings);
                readings.Subscribe([&received, alive](std::vector<Reading>) {
                    EXPECT_TRUE(alive->load());
                    ++received;
                    std::this_thread::sleep_for(100us);
                    EXPECT_TRUE(alive->load()) << "Unsubscribe() waits for the one under way";
                });
                const auto before = received.load();
                eventually([&] { return received != before; }, [] {}, 20ms);
                readings.Unsubscribe();
                *alive = false;
            }
        });
    }
    threads.emplace_back([&] {
        while (!over) {
            server.readings.Send({fullReading()});
            std::this_thread::sleep_for(50us);
        }
    });
    for (int life = 0; life < 5; ++life) {
        const auto before = received.load();
        EXPECT_TRUE(eventually([&] { return received > before + 20; }));
        life % 2 == 0 ? runtime.stop(20s) : kill(runtime);
        runtime.start(settingsFor(1), true);
    }
    over = true;
    threads.clear();
    EXPECT_GE(received, 100);
}
