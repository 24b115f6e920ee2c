/// What is sent from the spool and when, what counts as arrived, and what is remembered: by hand, without a
/// clock.
#include "backend/Compression.h"
#include "backend/Forwarder.h"
#include "backend/Health.h"
#include "backend/Remembered.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace kyo::orx;
using Numbers = std::vector<std::uint64_t>;
using Step = std::pair<Numbers, Numbers>;  // what has arrived, and what is sent then

/// A forwarder with a spool of numbers, whose envelopes are named after them.
struct ForwarderTest : Test {
    void store(std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            m_waiting[++m_highest] = true;
        }
    }
    /// Sends all that may be sent now.
    Numbers send() {
        Numbers sent;
        for (auto entry = m_forwarder.next(m_now, m_highest, source()); entry && sent.size() < 100;
             entry = m_forwarder.next(m_now, m_highest, source())) {
            m_forwarder.sent(*entry, std::to_string(entry->number), m_now);
            sent.push_back(entry->number);
        }
        return sent;
    }
    Forwarder::Source source() {
        return [this](std::uint64_t after, int& error) -> std::optional<Spool::Entry> {
            const auto found = m_waiting.upper_bound(after);
            error = after < m_unreadable ? EMFILE : 0;
            return found == m_waiting.end() || error != 0 ? std::nullopt
                                                          : std::optional(Spool::Entry{found->first, 1});
        };
    }
    Numbers take(int channel, int result, const std::string& id = "") {
        Numbers arrived;
        for (const auto& entry : m_forwarder.take({"t", {"TypeA"}, channel, result, id})) {
            arrived.push_back(entry.number);
            m_waiting.erase(entry.number);
        }
        return arrived;
    }
    Step hear(int channel, int result, const std::string& id = "") {
        return {take(channel, result, id), send()};
    }
    void connect(std::size_t receiveMaximum = 100) {
        m_forwarder.connected(receiveMaximum, m_highest, m_now);
    }

    Forwarder::TimePoint m_now{1h};
    std::map<std::uint64_t, bool> m_waiting;
    std::uint64_t m_highest = 0;
    std::uint64_t m_unreadable = 0;  ///< up to that number the folder would have to be read
    Forwarder m_forwarder{{60s, 16}};
};

TEST_F(ForwarderTest, TakesAnOpeningAsTheResultOfOneConfirmedEnvelopeOfABackendThatNamesNone) {
    store(3);
    connect();
    EXPECT_EQ(send(), Numbers{});  // closed until the backend opens
    EXPECT_EQ(hear(0, 0), Step({}, {1}));
    EXPECT_EQ(hear(0, 0), Step({}, {}));  // the broker has not confirmed it
    m_forwarder.confirmed(1);
    EXPECT_EQ(hear(0, 0), Step({1}, {2}));
    m_forwarder.confirmed(2);
    EXPECT_EQ(hear(0, 1), Step({}, {}));
    EXPECT_EQ(hear(0, 0), Step({}, {2}));  // again
    m_forwarder.confirmed(2);
    m_forwarder.lost();
    connect();
    EXPECT_EQ(hear(0, 0), Step({}, {2}));  // the first message of a connection is no result
    m_forwarder.confirmed(2);
    EXPECT_EQ(hear(0, 2), Step({}, {}));
    EXPECT_EQ(hear(0, 0), Step({}, {2}));
    m_forwarder.confirmed(2);
    EXPECT_EQ(take(3, 0), Numbers{});  // closed, and open again: nobody knows whether it arrived
    EXPECT_EQ(hear(0, 0), Step({}, {2}));
}

TEST_F(ForwarderTest, WidensItsWindowWhileResultsNameTheirEnvelopes) {
    store(60);
    connect(12);
    EXPECT_EQ(hear(0, 0), Step({}, {1}));
    EXPECT_EQ(hear(0, 0, "1"), Step({1}, {2, 3}));
    EXPECT_EQ(hear(0, 0, "3"), Step({3}, {4, 5, 6}));
    for (const char* id : {"2", "4", "5"}) {
        hear(0, 0, id);
    }
    EXPECT_EQ(m_forwarder.window(), 12u);  // the broker's Receive Maximum
    EXPECT_EQ(m_forwarder.onTheirWay(), 12u);
    EXPECT_EQ(take(0, 0, "nobody's"), Numbers{});

    EXPECT_EQ(hear(0, 1, "7"), Step({}, {}));
    m_forwarder.confirmed(8);
    EXPECT_EQ(take(0, 0), Numbers{});  // an opening, and no result of one that may be on its way
    EXPECT_EQ(m_forwarder.window(), 1u);
    for (const char* id : {"6", "8", "9", "10", "11", "12", "13", "14", "15", "16", "17"}) {
        take(0, 0, id);
    }
    EXPECT_EQ(send().front(), 7u);
    EXPECT_EQ(hear(0, 2, "7"), Step({}, {}));
    m_now += 61s;
    EXPECT_EQ(hear(0, 0).second.front(), 7u);
}

TEST_F(ForwarderTest, SendsAgainAfterATimeOutAndThenBelievesOpeningsAgain) {
    store(2);
    connect();
    hear(0, 0);
    EXPECT_EQ(hear(0, 0, "1"), Step({1}, {2}));
    m_forwarder.confirmed(2);
    EXPECT_EQ(take(0, 0), Numbers{});  // this backend names what it means
    EXPECT_EQ(m_forwarder.wakeAt(m_now), m_now + 60s);
    m_now += 59s;
    EXPECT_EQ(send(), Numbers{});
    m_now += 1s;
    EXPECT_EQ(send(), Numbers{2});
    m_forwarder.confirmed(2);
    EXPECT_EQ(take(0, 0), Numbers{2});  // another backend may be there
}

TEST_F(ForwarderTest, LetsNewEnvelopesPassEverySecondTimeWhileABacklogDrains) {
    store(4);
    connect();
    store(2);
    take(0, 0);
    Numbers order;
    for (int i = 0; i < 7; ++i) {
        std::ranges::copy(send(), std::back_inserter(order));
        if (order.size() < 7 && m_forwarder.onTheirWay() == 1) {
            m_forwarder.confirmed(order.back());
            take(0, 0);
        }
        if (i == 3) {
            store(1);
        }
    }
    EXPECT_EQ(order, (Numbers{5, 1, 6, 2, 7, 3, 4}));
}

TEST_F(ForwarderTest, WaitsBeforeABacklogButNotWithWhatIsNew) {
    store(2);
    m_forwarder.connected(100, m_highest, m_now + 5s);
    EXPECT_EQ(hear(0, 0), Step({}, {}));
    EXPECT_EQ(m_forwarder.wakeAt(m_now), m_now + 5s);
    store(1);
    EXPECT_EQ(send(), Numbers{3});
    take(0, 0, "3");
    m_now += 5s;
    m_unreadable = 3;
    EXPECT_EQ(send(), Numbers{});
    EXPECT_EQ(m_forwarder.wakeAt(m_now), m_now + 1s);
    store(1);
    m_now += 1s;
    EXPECT_EQ(send(), Numbers{4});
    take(0, 0, "4");
    m_unreadable = 0;
    m_now += 1s;
    EXPECT_EQ(send(), (Numbers{1, 2}));
    m_forwarder.lost();
    connect();
    EXPECT_EQ(hear(0, 0), Step({}, {1}));  // from the beginning
    m_forwarder.skip({1, 1});              // was moved aside
    m_waiting.erase(1);
    EXPECT_EQ(send(), Numbers{2});
    m_forwarder.undelivered(2);
    EXPECT_EQ(send(), Numbers{});
    EXPECT_EQ(hear(0, 0), Step({}, {2}));
    m_forwarder.unsent(2, m_now);
    EXPECT_EQ(send(), Numbers{});
    m_now += 1s;
    EXPECT_EQ(send(), Numbers{2});
}

TEST(BackendControlTest, IsRefusedWholeWhenAMemberIsWrong) {
    const auto read = [](const char* text, BackendControl& control) {
        std::string fault;
        return readBackendControl(valueOf(text), control, fault) ? "" : fault;
    };
    BackendControl control;
    EXPECT_EQ(read(R"({"eventTicket":"t","permittedDataType":["A"],"backendChannelControl":0,
                       "dataDeliveryResult":0,"messageId":"m"})",
                   control),
              "");
    EXPECT_TRUE(control.opens());
    EXPECT_EQ(control.messageId, "m");
    EXPECT_EQ(read("{}", control = {}), "");
    EXPECT_FALSE(control.opens());
    EXPECT_EQ(read(R"({"eventTicket":7,"permittedDataType":[1],"backendChannelControl":0.9})", control = {}),
              "");
    EXPECT_TRUE(control.ticket == "7" && control.opens()) << "converted, as without a spool";
    EXPECT_EQ(read("null", control), "the message: an object is expected");
    EXPECT_EQ(read(R"({"messageId":[]})", control), "messageId: a text is expected, found an array");
    EXPECT_EQ(read(R"({"permittedDataType":["A",{}]})", control),
              "permittedDataType[1]: a text is expected, found an object");
    EXPECT_THAT(read(R"({"dataDeliveryResult":1e10})", control),
                HasSubstr("dataDeliveryResult: a number from"));
}

TEST(CompressionTest, BringsATextBackWithTheDictionaryOfItsFrameAndBelievesNoLengthBeyondItsLimit) {
    const std::string text =
        R"({"correlationTag":"VLMCorrelTag","deliveryMode":0,"elementId":1,"eventId":"VLM.A.B","eventTicket":"t",)"
        R"("isCallbackAbilityRequested":true,"messageId":"0b6c9ca2-7d7b-8f65-9a8e-4f6b1a2d3c4e",)"
        R"("orxClientDataReport":"{\"applicationName\":\"A\",\"reportName\":\"B\",\"sequenceNumber\":3}"})";
    std::string error;
    std::string back;
    Dictionaries known;
    known.addBuiltIn();
    const auto dictionary = Dictionary::load("50001", error);
    ASSERT_TRUE(dictionary) << error;
    const std::string plain = kyo::orx::Compressor(1).compress(text);
    const std::string packed = kyo::orx::Compressor(1, dictionary).compress(text);
    EXPECT_LT(packed.size(), plain.size() / 2);
    EXPECT_EQ(nameOf(Encoding::Zstd, plain), "zstd");
    EXPECT_EQ(nameOf(Encoding::Zstd, packed), "zstd-50001");
    for (const std::string& payload : {plain, packed}) {
        EXPECT_TRUE(decompress(Encoding::Zstd, payload, back, error, text.size(), known)) << error;
        EXPECT_EQ(back, text);
        EXPECT_FALSE(decompress(Encoding::Zstd, payload, back, error, text.size() - 1, known));
        EXPECT_THAT(error, HasSubstr("more than the limit"));
        EXPECT_FALSE(decompress(Encoding::Zstd, payload.substr(0, payload.size() - 9), back, error,
                                text.size(), known));
        EXPECT_EQ(back, "");
    }
    EXPECT_FALSE(decompress(Encoding::Zstd, packed, back, error));
    EXPECT_EQ(error, "its dictionary 50001 is not known");
    EXPECT_FALSE(decompress(Encoding::Zstd, "no frame", back, error));
    EXPECT_FALSE(decompress(Encoding::Plain, text, back, error, 10));
    const std::string bomb = kyo::orx::Compressor(3).compress(std::string(200u << 20, ' '));
    EXPECT_FALSE(decompress(Encoding::Zstd, bomb, back, error));

    EXPECT_FALSE(known.add("50002", error));
    EXPECT_EQ(error, "no dictionary 50002 is built in; known are 50001");
    const TemporaryFolder folder;
    EXPECT_FALSE(known.add(folder.write("some.zdict", text), error));
    EXPECT_NE(error.find("some.zdict: no zstd dictionary"), std::string::npos) << error;
    EXPECT_FALSE(known.add(folder.file("none"), error));
    EXPECT_NE(error.find("none: No such file"), std::string::npos) << error;
}

kyo::Json::Value configuration(const std::string& id, const std::string& body) {
    return valueOf(R"([{"recordId":")" + id + R"(","recordBody":")" + body + R"("}])");
}

TEST(RememberedConfigurationTest, StandsInForABackendThatIsSilentAndGoesOnAskingIt) {
    const TemporaryFolder folder;
    const RememberedConfiguration::Clock::time_point start{1h};
    const auto remembering = [&folder](std::optional<std::chrono::seconds> after) {
        return RememberedConfiguration(folder.path(), Spool::ordinaryDisk(), after);
    };
    {
        auto first = remembering(30s);
        first.requested(start);
        EXPECT_FALSE(first.standIn(start + 30s));  // nothing is remembered yet
        EXPECT_FALSE(first.isToAsk(start + 30s));
        // The verdicts come late, and one identifier twice.
        for (const auto& [id, body] : {std::pair{"b", "good"}, {"a", "e30="}, {"a", "bad"}, {"c", "bad"}}) {
            EXPECT_FALSE(first.isRepeated(configuration(id, body)));
            first.passedOn(configuration(id, body));
            first.passedOn(kyo::Json::Value(kyo::Json::arrayValue));
            EXPECT_TRUE(first.isRepeated(configuration(id, body)));
        }
        EXPECT_EQ((*first.judged("b", true))["recordBody"], "good");
        EXPECT_EQ(first.keep(*first.judged("a", true)), 0);
        EXPECT_FALSE(first.judged("a", false));
        EXPECT_FALSE(first.judged("a", true));
    }
    {
        auto second = remembering(30s);
        EXPECT_FALSE(second.standIn(start));  // nobody has asked
        second.requested(start);
        EXPECT_EQ(second.wakeAt(), start + 30s);
        EXPECT_FALSE(second.standIn(start + 29s));
        EXPECT_FALSE(second.isToAsk(start + 29s));  // the application does
        const auto answer = second.standIn(start + 30s);
        ASSERT_TRUE(answer);
        EXPECT_EQ(*answer, configuration("a", "e30="));
        EXPECT_TRUE(second.standIn(start + 30s));  // until it could be passed on
        second.stoodIn(*answer, start + 30s);
        EXPECT_FALSE(second.standIn(start + 31s));
        EXPECT_FALSE(second.isToAsk(start + 31s));
        second.connected();
        EXPECT_TRUE(second.isToAsk(start + 32s));
        EXPECT_FALSE(second.isToAsk(start + 33s));
        EXPECT_TRUE(second.isToAsk(start + 32s + 11min));
        EXPECT_TRUE(second.isRepeated(configuration("a", "e30=")));  // it runs already
        second.passedOn(configuration("a", "e30K"));
        EXPECT_FALSE(second.isToAsk(start + 1h));
    }
    auto never = remembering(std::nullopt);
    never.requested(start);
    EXPECT_FALSE(never.standIn(start + 24h));
}

TEST(HealthTest, IsToldAfterAConfigurationOnceAMinuteAndOtherwiseEveryFive) {
    Health health;
    Health::Clock::time_point now{1h};
    EXPECT_TRUE(health.due(now, 0, 0));
    EXPECT_FALSE(health.due(now + 61s, 5, 6));  // it may be on its way
    EXPECT_TRUE(health.due(now + 66s, 5, 6));
    now += 66s;
    health.noteConfiguration("a", false, "why");
    health.noteConfiguration("b", true, "");
    const auto message = health.due(now + 70s, 3, 4);
    ASSERT_TRUE(message);
    EXPECT_EQ((*message)["waitingEnvelopes"].asUInt(), 3u);
    EXPECT_EQ((*message)["configurations"], valueOf(R"([{"recordId":"a","state":"refused","reason":"why"},
                                                        {"recordId":"b","state":"applied"}])"));
    health.noteConfiguration("a", true, "");
    EXPECT_FALSE(health.due(now + 80s, 3, 4));
    EXPECT_TRUE(health.due(now + 131s, 3, 4));
    EXPECT_FALSE(health.due(now + 131s + 299s, 3, 4));
    EXPECT_TRUE(health.due(now + 131s + 301s, 3, 4));
}

}  // namespace
