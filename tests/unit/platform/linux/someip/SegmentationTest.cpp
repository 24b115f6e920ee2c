#include "someip/Segmentation.h"

#include <random>

#include "tests/support/Test.h"

using namespace someip;
using namespace vlmTest;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes pattern(std::size_t size, const std::map<std::size_t, std::uint8_t>& changes = {}) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = changes.contains(i) ? changes.at(i) : static_cast<std::uint8_t>(i * 7 + i / 256);
    }
    return bytes;
}

/// The contents of segments: what follows the 16 header bytes.
std::vector<Bytes> contentsOf(const Bytes& payload) {
    std::vector<Bytes> contents;
    segment(Header{}, payload, [&](std::span<const std::uint8_t> datagram) {
        contents.emplace_back(datagram.begin() + kHeaderSize, datagram.end());
        return true;
    });
    return contents;
}

Bytes content(std::uint32_t offset, bool more, const Bytes& bytes) {
    Bytes out(4 + bytes.size());
    SegmentHeader{offset, more}.write(out.data());
    std::copy(bytes.begin(), bytes.end(), out.begin() + 4);
    return out;
}

struct Joining : Test {
    SegmentKey key(std::uint16_t session) const { return {{0x7F000002, 40000}, 0x4101, 0x8001, 0, session}; }
    bool add(const Bytes& bytes, std::uint16_t session = 1) { return add(key(session), bytes); }
    bool add(const SegmentKey& key, const Bytes& bytes) {
        std::span<const std::uint8_t> joined;
        if (!reassembler.add(key, bytes, now, joined)) {
            return false;
        }
        message.assign(joined.begin(), joined.end());
        return true;
    }
    /// These segments of a message of 5000 bytes.
    void begin(std::initializer_list<std::size_t> segments, std::uint16_t session) {
        for (const std::size_t i : segments) {
            EXPECT_FALSE(add(contentsOf(pattern(5000)).at(i), session));
        }
    }
    /// Open sets, the bytes that they hold, messages dropped, segments ignored.
    std::vector<std::uint64_t> counts() const {
        return {reassembler.openSets(), reassembler.heldBytes(), reassembler.dropped(),
                reassembler.ignored()};
    }
    /// All segments, in order; whether the last one and no other completed the message.
    bool join(const Bytes& payload, std::uint16_t session) {
        int completed = 0;
        bool last = false;
        for (const auto& bytes : contentsOf(payload)) {
            last = add(bytes, session);
            completed += last ? 1 : 0;
        }
        return last && completed == 1 && message == payload;
    }

    ReassemblyLimits limits{1u << 20, 4u << 20, 8, 500ms};
    Reassembler reassembler{limits};
    Clock::time_point now{1h};
    Bytes message;
};

}  // namespace

TEST_F(Joining, TakesWhatWasSegmentedAndNothingThatIsTooShort) {
    std::uint16_t session = 0;
    for (const std::size_t size : {1393u, 2784u, 2785u, 5571u}) {
        EXPECT_TRUE(join(pattern(size), ++session)) << size;
    }
    for (const std::size_t size : {0u, 3u, 4u}) {
        EXPECT_FALSE(add(Bytes(size), ++session));
    }
    EXPECT_THAT(counts(), ElementsAre(0, 0, 3, 0));
}

// Three messages at once, whose segments begin and end anywhere, so that they overlap.
TEST_F(Joining, TakesSegmentsInAnyOrderPassesOverDoubledOnesAndKeepsSendersAndSessionsApart) {
    std::mt19937 random(1);
    std::uint64_t repeated = 0;
    for (std::uint16_t session = 1; session < 1000; session += 2) {
        std::array keys{key(session), key(session), key(session + 1)};
        ++keys[1].sender.port;
        std::array<Bytes, 3> payloads;
        std::array<std::vector<bool>, 3> missing;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            payloads[i] = pattern(1 + random() % 300);
            payloads[i][0] = static_cast<std::uint8_t>(i);
            missing[i].assign(payloads[i].size(), true);
        }
        for (std::size_t left = keys.size(); left != 0;) {
            const std::size_t i = random() % keys.size();
            const auto isMissing = [&](auto from, auto to) { return std::find(from, to, true) != to; };
            if (!isMissing(missing[i].begin(), missing[i].end())) {
                continue;
            }
            const auto size = payloads[i].size();
            const auto from = random() % size / 16 * 16;
            const auto to = std::min<std::size_t>(size, from + 16 * (1 + random() % 6));
            const auto [begin, end] = std::pair(missing[i].begin() + from, missing[i].begin() + to);
            repeated += isMissing(begin, end) ? 0 : 1;
            std::fill(begin, end, false);
            const bool completes = !isMissing(missing[i].begin(), missing[i].end());
            const Bytes part(payloads[i].begin() + from, payloads[i].begin() + to);
            ASSERT_EQ(add(keys[i], content(from, to < size, part)), completes) << session;
            EXPECT_TRUE(!completes || message == payloads[i]) << session;
            left -= completes ? 1 : 0;
        }
        EXPECT_THAT(counts(), ElementsAre(0, 0, 0, repeated));
    }
}

TEST_F(Joining, OtherBytesOrAContradictionDropTheSet) {
    const Bytes a(32, 1);
    const Bytes b(32, 2);
    const std::vector<std::vector<Bytes>> cases = {
        {content(0, true, a), content(16, true, b)},                         // half over the front
        {content(64, true, a), content(48, true, b)},                        // half over the next
        {content(64, true, a), content(80, true, b)},                        // half over the one before
        {content(0, true, a), content(64, false, a), content(96, true, a)},  // behind the end
        {content(64, true, a), content(32, false, a)},                       // an end before what is there
        {content(64, false, a), content(128, false, a)},                     // two ends
        {content(64, false, a), content(64, true, a)},                       // an end that is none
        {content(64, true, a), content(64, false, a)},                       // an end where more was promised
        {content(0, true, Bytes(17, 1))},                                    // no multiple of 16
    };
    std::uint16_t session = 0;
    for (const auto& one : cases) {
        ++session;
        for (const auto& bytes : one) {
            EXPECT_FALSE(add(bytes, session)) << "case " << session;
        }
        EXPECT_THAT(counts(), ElementsAre(0, 0, session, session - 1)) << "case " << session;
        EXPECT_FALSE(add(content(16, true, a), session)) << "what still comes of it opens no new set";
        EXPECT_THAT(counts(), ElementsAre(0, 0, session, session)) << "but is counted";
        now += 1s;
        reassembler.expire(now);
        EXPECT_EQ(reassembler.dropped(), session) << "dropped once";
    }
}

TEST_F(Joining, NoMessageIsLostToAnotherOneOfTheSameSessionNumber) {
    for (const std::uint16_t session : {1, 0}) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(join(pattern(3000), session)) << "equal ones";
        }
        EXPECT_TRUE(join(pattern(3000, {{1500, 77}}), session)) << "one that begins like the one before";
        // One without its end, and then four complete ones; equal in their first segment.
        auto dropped = reassembler.dropped();
        begin({0, 1}, session);
        for (std::uint8_t i = 1; i <= 4; ++i) {
            EXPECT_TRUE(join(pattern(5000, {{2000, i}}), session))
                << "message " << int(i) << ", session " << session;
        }
        EXPECT_EQ(reassembler.dropped(), ++dropped);
        // One with a hole, so that its end is there already.
        begin({0, 3}, session);
        EXPECT_TRUE(join(pattern(5000, {{0, 99}, {4999, 99}}), session));
        EXPECT_EQ(reassembler.dropped(), ++dropped);
        // One that is refused.
        add(content(16, true, Bytes(17, 1)), session);
        EXPECT_TRUE(join(pattern(4000), session));
        EXPECT_EQ(reassembler.dropped(), ++dropped);
    }
    // A sender that has restarted.
    begin({1}, 5);
    reassembler.forget(key(5).sender, key(5).service);
    EXPECT_EQ(reassembler.openSets(), 0u);
    EXPECT_TRUE(join(pattern(2000), 5));
}

TEST_F(Joining, AGapAtTheTimeOutDropsTheSetUnlessItOnlyRepeatsTheOneBefore) {
    EXPECT_TRUE(join(pattern(5000), 1));
    begin({0, 1, 2}, 1);
    begin({0, 2}, 2);
    EXPECT_EQ(reassembler.nextDeadline(), now + 500ms);
    now += 499ms;
    reassembler.expire(now);
    EXPECT_EQ(reassembler.openSets(), 2u);
    now += 1ms;
    reassembler.expire(now);
    EXPECT_THAT(counts(), ElementsAre(0, 0, 1, 3));
    EXPECT_EQ(reassembler.nextDeadline(), Clock::time_point::max());
}

TEST_F(Joining, HoldsNoMoreThanItsCaps) {
    // Sets: each one more than may be open is refused as a whole and counted once, as many as ever come.
    std::size_t joined = 0;
    for (const auto& bytes : contentsOf(pattern(5000))) {
        for (std::uint16_t session = 1; session <= 1000; ++session) {
            joined += add(bytes, session) ? 1 : 0;
        }
        EXPECT_LE(reassembler.openSets(), 8u);
    }
    EXPECT_EQ(joined, 8u);
    EXPECT_EQ(reassembler.ignored(), 3u * 992);
    EXPECT_TRUE(join(pattern(5000), 1000)) << "the next one finds room";
    now += 1s;
    reassembler.expire(now);
    EXPECT_EQ(reassembler.dropped(), 992u);

    // One message: an offset alone costs nothing, and is refused where it passes the cap.
    add(content((1u << 20) - 16, true, Bytes(16, 1)), 20);
    EXPECT_LT(reassembler.heldBytes(), 1000u);
    add(content(1u << 20, false, Bytes(1, 1)), 20);
    EXPECT_EQ(reassembler.heldBytes(), 0u);

    // All together.
    Reassembler small({1u << 20, 4096, 8, 500ms});
    std::span<const std::uint8_t> none;
    for (std::uint16_t session = 1; session <= 8; ++session) {
        small.add(key(session), content(0, true, Bytes(1392, 1)), now, none);
        EXPECT_LE(small.heldBytes(), 4096u);
    }
    EXPECT_GE(small.dropped(), 1u);
}
