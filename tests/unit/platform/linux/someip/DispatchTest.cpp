#include <random>

#include "Reading.h"
#include "someip/Counters.h"
#include "someip/EventDispatcher.h"
#include "tests/support/Test.h"

using namespace someip;
using namespace vlmTest;

namespace {

const Endpoint kServer{0x7F000002, 40000};
const Endpoint kStranger{0x7F000002, 40001};

Bytes payloadOf(std::uint8_t small) {
    Reading reading;
    reading.small = small;
    Bytes payload;
    someip::encodeSamples(std::vector{reading}, payload);
    return payload;
}

struct Dispatching : Test {
    Dispatching() { dispatcher.setRoutes({{kServer, receiver()}}); }

    std::shared_ptr<EventReceiver> receiver() {
        return std::make_shared<EventReceiver>(
            kMeter, 1, kReadings,
            [this](std::span<const std::uint8_t> payload, someip::DecodeReport& report) {
                std::vector<Reading> samples;
                someip::decodeSamples(payload, samples, report);
                for (const auto& sample : samples) {
                    got.push_back(sample.small.value_or(0));
                }
            });
    }
    void hear(const Bytes& datagram, const Endpoint& from = kServer) {
        const auto exact = std::make_unique<std::uint8_t[]>(datagram.size());
        std::copy(datagram.begin(), datagram.end(), exact.get());
        dispatcher.onDatagram(from, {exact.get(), datagram.size()}, now);
    }
    /// The increase of a counter by this datagram.
    std::uint64_t counted(kyo::Counter& counter, const Bytes& datagram, const Endpoint& from = kServer) {
        const auto before = counter.value();
        hear(datagram, from);
        return counter.value() - before;
    }

    LogCapture log;
    std::atomic<bool> stop{false};
    EventDispatcher dispatcher{ReassemblyLimits{}, stop};
    Clock::time_point now{1h};
    std::vector<int> got;
};

}  // namespace

TEST_F(Dispatching, HandsEachNotificationOfADatagramToEachReceiver) {
    const auto datagram =
        messageOf(payloadOf(1), 1) + messageOf(payloadOf(2), 2) + messageOf(payloadOf(3), 3);
    EXPECT_EQ(counted(counters().malformed, datagram), 0u);
    EXPECT_THAT(got, ElementsAre(1, 2, 3));
    EXPECT_EQ(counted(counters().malformed, datagram + Bytes{0}), 1u);
    EXPECT_THAT(got, ElementsAre(1, 2, 3, 1, 2, 3)) << "what came before the broken end counts";
    got.clear();
    dispatcher.setRoutes({{kServer, receiver()}, {kServer, receiver()}});
    hear(messageOf(payloadOf(5)));
    EXPECT_THAT(got, ElementsAre(5, 5));
    stop = true;
    EXPECT_EQ(counted(counters().notSubscribed, messageOf(payloadOf(6))), 1u);
    EXPECT_THAT(got, ElementsAre(5, 5)) << "nothing is handed over after the end";
}

TEST_F(Dispatching, RefusesAndCountsWhatIsNotForIt) {
    const auto good = messageOf(payloadOf(5));
    const auto with = [&](std::size_t at, std::uint8_t value) {
        auto changed = good;
        changed.at(at) = value;
        return changed;
    };
    EXPECT_EQ(counted(counters().wrongPeer, good, kStranger), 1u);
    EXPECT_EQ(counted(counters().notSubscribed, with(3, 0x02)), 1u);
    EXPECT_EQ(counted(counters().wrongVersion, with(12, 2)), 1u);
    EXPECT_EQ(counted(counters().wrongVersion, with(13, 2)), 1u);
    EXPECT_EQ(counted(counters().malformed, with(14, 0x00)), 1u);
    EXPECT_EQ(counted(counters().malformed, with(14, 0x80)), 1u);
    EXPECT_EQ(counted(counters().malformed, with(15, 1)), 1u);
    EXPECT_EQ(counted(counters().malformed, with(7, 7)), 1u) << "a length below 8";
    EXPECT_EQ(counted(counters().malformed, with(4, 0xFF)), 1u) << "a length of 4 GiB";
    EXPECT_EQ(counted(counters().malformed, {}), 1u);
    EXPECT_TRUE(got.empty());
    EXPECT_TRUE(log.messages(3).empty()) << "a stranger cannot fill the log";
}

TEST_F(Dispatching, ATruncatedStructureIsLoggedOnceWithItsEventAndTheSubscriptionContinues) {
    const Bytes truncated = {0, 0, 0, 6, 0, 0, 0, 2, 0x00, 0x01};
    EXPECT_EQ(counted(counters().truncated, messageOf(truncated)), 1u);
    EXPECT_EQ(counted(counters().notifications, messageOf(truncated)), 0u) << "counted once";
    EXPECT_THAT(
        log.messages(3),
        ElementsAre("Violation of [PRS_SOMEIP_00900]: Record length given by sender is too small. This is "
                    "possibly due to a mismatch between the data models of sender and receiver. (service "
                    "Meter, event readings, from 127.0.0.2:40000)"));
    hear(messageOf(payloadOf(5)));
    EXPECT_THAT(got, ElementsAre(5));
    EXPECT_EQ(counted(counters().malformed, messageOf({0, 0, 0, 9})), 1u);
    EXPECT_EQ(counted(counters().notifications, messageOf({0, 0, 0, 9})), 0u) << "counted once";
}

TEST_F(Dispatching, AHandlerThatThrowsIsLoggedAndTheNextMessageComes) {
    dispatcher.setRoutes(
        {{kServer, std::make_shared<EventReceiver>(
                       kMeter, 1, kReadings, [this](std::span<const std::uint8_t>, someip::DecodeReport&) {
                           got.push_back(1);
                           throw std::runtime_error("no room");
                       })}});
    EXPECT_EQ(counted(counters().handlerFailures, messageOf(payloadOf(5), 1)), 1u);
    EXPECT_EQ(counted(counters().handlerFailures, messageOf(payloadOf(5), 2)), 1u);
    EXPECT_THAT(got, ElementsAre(1, 1));
    EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr("no room (service Meter, event readings")));
}

TEST_F(Dispatching, CountsNumbersThatNeverCameOnceItKnowsThatTheSenderCounts) {
    const auto payload = payloadOf(1);
    const auto gaps = [&](std::initializer_list<std::uint16_t> sessions) {
        const auto before = counters().sessionGaps.value();
        for (const auto session : sessions) {
            hear(messageOf(payload, session));
        }
        return counters().sessionGaps.value() - before;
    };
    EXPECT_EQ(gaps({7, 9, 10}), 0u) << "not known yet";
    const auto count = [&](std::uint16_t from, std::uint16_t to) {
        for (; from <= to; ++from) {
            EXPECT_EQ(gaps({from}), 0u) << from;
        }
    };
    count(11, 40);
    EXPECT_EQ(gaps({43, 44}), 2u);
    EXPECT_EQ(counted(counters().sessionRepeats, messageOf(payload, 44)), 1u);
    EXPECT_EQ(gaps({46, 45, 47, 30, 48}), 0u) << "overtaken, and late";
    EXPECT_EQ(gaps({0, 0, 49}), 0u) << "not every message counts";
    EXPECT_EQ(gaps({20001, 50, 51, 54, 55}), 2u) << "a stray one costs nothing and hides nothing";
    EXPECT_EQ(gaps({1000, 1001}), 944u) << "an outage";
    EXPECT_EQ(gaps({40000, 40001}), 38998u) << "a long one";
    EXPECT_EQ(gaps({1, 2, 3}), 0u) << "a new start";
    EXPECT_EQ(gaps({0xFF00, 0xFF01}), 0xFF00u - 4u);
    EXPECT_EQ(gaps({0xFFFE, 0xFFFF, 1, 3, 4}), 252u + 1u) << "no number 0";
    count(5, 30);
    EXPECT_EQ(gaps({40000, 40001, 5, 6, 7}), 39969u) << "a new start whose first numbers were lost";
    EXPECT_EQ(got.size(), 94u) << "none is kept back";
}

TEST_F(Dispatching, FindsNoGapsInASenderThatCountsItsEventsTogetherButThoseThatAre) {
    const auto send = [&](const ac::com::EventInterface& event, std::uint16_t session) {
        auto message = messageOf(payloadOf(1), session);
        storeBig(&message[2], event.eventId);
        return counted(counters().sessionGaps, message);
    };
    std::uint64_t gaps = 0;
    for (std::uint16_t session = 1; session <= 240; session += 2) {
        gaps += send(kReadings, session);  // the other event does not come
    }
    EXPECT_EQ(gaps, 0u);
    dispatcher.setRoutes({{kServer, receiver(), 100}});
    for (std::uint16_t session = 1; session <= 400; session += session == 149 ? 2 : 1) {
        gaps += send(session % 50 == 0 ? kAlarms : kReadings, session);  // it comes, but is not subscribed
    }
    EXPECT_EQ(gaps, 1u);

    // Both are, and one that is counted with the other comes rarely, twice in a row.
    std::mt19937 random(1);
    for (std::uint64_t life = 1; life <= 60; ++life) {
        const auto alarms = std::make_shared<EventReceiver>(
            kMeter, 1, kAlarms, [](std::span<const std::uint8_t>, someip::DecodeReport&) {});
        dispatcher.setRoutes({{kServer, receiver(), life}, {kServer, alarms, life}});
        const bool together = life % 3 == 0;
        const bool inStep = life % 3 == 1;
        std::array<std::uint16_t, 2> last{100, 100};
        std::uint64_t lost = 0;
        gaps = 0;
        for (unsigned i = 0; i < 400; ++i) {
            const std::size_t which = together ? i % 50 >= 48 : inStep ? i % 2 : random() % 2;
            const auto session = ++last[together ? 0 : which];
            if (i >= 100 && i < 350 && random() % 30 == 0) {
                ++lost;
            } else {
                gaps += send(which == 0 ? kReadings : kAlarms, session);
            }
        }
        EXPECT_EQ(gaps, lost) << life;
    }
}

TEST_F(Dispatching, JoinsSegmentsAndCountsWhatNeverBecameAMessage) {
    const auto segments = [](std::uint16_t session) {
        Bytes payload;
        someip::encodeSamples(std::vector<Reading>(100, fullReading()), payload);
        std::vector<Bytes> datagrams;
        segment(headerOf(session), payload, [&](std::span<const std::uint8_t> datagram) {
            datagrams.emplace_back(datagram.begin(), datagram.end());
            return true;
        });
        return datagrams;
    };
    for (const Bytes& datagram : segments(3)) {
        EXPECT_TRUE(got.empty());
        hear(datagram);
    }
    EXPECT_EQ(got.size(), 100u);
    EXPECT_EQ(counted(counters().tpIgnored, segments(3)[1]), 1u) << "doubled on the way";

    // A sender that has restarted under the same port: what it had begun does not go on.
    auto begun = segments(5);
    const auto dropped = counters().tpDropped.value();
    hear(begun[0]);
    dispatcher.setRoutes({{kServer, receiver(), 1}});
    EXPECT_EQ(counters().tpDropped.value(), dropped + 1);
    std::ranges::rotate(begun, begun.begin() + 1);
    for (const Bytes& datagram : begun) {
        EXPECT_EQ(got.size(), 100u);
        hear(datagram);
    }
    EXPECT_EQ(got.size(), 200u);

    hear(segments(4)[0]);
    dispatcher.onTime(now += 1s);
    EXPECT_EQ(counters().tpDropped.value(), dropped + 2);
}

TEST(RateLimits, ReportTheFirstAndThenOncePerInterval) {
    RateLimit limit(60s);
    Clock::time_point now{1h};
    EXPECT_EQ(limit.note(now), 0u);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(limit.note(now + 59s), std::nullopt);
    }
    EXPECT_EQ(limit.note(now + 60s), 1000u);
    EXPECT_EQ(limit.note(now + 120s), 0u);
    ChangeLimit changes;
    int logged = 0;
    for (int i = 0; i < 1000; ++i) {
        logged += changes.note(now) ? 1 : 0;
    }
    EXPECT_EQ(logged, 10);
    EXPECT_EQ(more(*changes.note(now + 60s)), " (990 more since the last such message)");
    EXPECT_EQ(more(*changes.note(now + 60s)), "");
}
