#include "Reading.h"
#include "tests/support/Test.h"

using namespace vlmTest;
using namespace someip;

namespace {

using enum DecodeResult;

Bytes lengthAnd(const Bytes& content) {
    Bytes bytes;
    someip::appendBig(bytes, static_cast<std::uint32_t>(content.size()));
    return bytes + content;
}

/// A payload with one structure.
Bytes payloadOf(const Bytes& members) {
    return lengthAnd(lengthAnd(members));
}

struct Decoded {
    bool good;
    std::vector<Reading> samples;
    DecodeReport report;
};

Decoded decode(const Bytes& payload) {
    // A buffer of exactly this size, so that the address sanitizer detects reading past it.
    const auto exact = std::make_unique<std::uint8_t[]>(payload.size());
    std::copy(payload.begin(), payload.end(), exact.get());
    Decoded out;
    out.good = someip::decodeSamples(std::span<const std::uint8_t>(exact.get(), payload.size()), out.samples,
                                     out.report);
    return out;
}

const Bytes kU8 = {0x00, 0x01, 0x2A};
const Bytes kU16 = {0x10, 0x02, 0x12, 0x34};
const Bytes kU32 = {0x20, 0x03, 0x00, 0x00, 0x00, 0x01};
const Bytes kF64 = {0x30, 0x04, 0x3F, 0xF0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const Bytes kText = {0x50, 0x07, 0x06, 0xEF, 0xBB, 0xBF, 0x61, 0x62, 0x00};
const Bytes kText4 = {0x70, 0x07, 0, 0, 0, 6, 0xEF, 0xBB, 0xBF, 0x61, 0x62, 0x00};

}  // namespace

TEST(Codec, WritesTheBytesThatTheProtocolGives) {
    Bytes payload;
    someip::encodeSamples(std::vector{fullReading()}, payload);
    EXPECT_EQ(payload,
              payloadOf(kU8 + kU16 + kU32 + kF64 + Bytes{0x00, 0x05, 0x01, 0x10, 0x06, 0xFF, 0xFF} + kText4 +
                        Bytes{0x20, 0x08, 0xBF, 0, 0, 0, 0x30, 0x09, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                              0xFE}));
    const auto decoded = decode(payload + Bytes{1, 2, 3});
    EXPECT_TRUE(decoded.good) << "what follows the array is ignored";
    EXPECT_EQ(decoded.samples, std::vector{fullReading()});

    someip::encodeSamples(std::vector<Reading>{{}, {}}, payload);
    EXPECT_EQ(payload, (Bytes{0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0})) << "absent members have no tag";
}

TEST(Codec, TakesMembersInAnyOrderTextsOfAnyWidthSkipsUnknownOnesAndCountsDoubledOnes) {
    const std::pair<Bytes, std::uint32_t> cases[] = {
        {kF64, 0},
        {{0x60, 0x07, 0, 6, 0xEF, 0xBB, 0xBF, 0x61, 0x62, 0x00}, 0},
        {kText4, 0},
        {{0x40, 0x07, 0, 0, 0, 6, 0xEF, 0xBB, 0xBF, 0x61, 0x62, 0x00}, 0},
        {{0x07, 0xFF, 0xAA}, 0},
        {{0x17, 0xFF, 0xAA, 0xBB}, 0},
        {{0x27, 0xFF, 1, 2, 3, 4}, 0},
        {{0x37, 0xFF, 1, 2, 3, 4, 5, 6, 7, 8}, 0},
        {{0x57, 0xFF, 0}, 0},
        {{0x67, 0xFF, 0, 2, 1, 2}, 0},
        {{0x77, 0xFF, 0, 0, 0, 2, 1, 2}, 0},
        {kText + Bytes{0x50, 0x07, 0x04, 0xEF, 0xBB, 0xBF, 0x00} + Bytes{0x10, 0x02, 0, 0}, 2},
    };
    for (const auto& [members, doubled] : cases) {
        const auto decoded = decode(payloadOf(kU16 + members + kU8));
        ASSERT_TRUE(decoded.good) << decoded.report.error;
        ASSERT_THAT(decoded.samples, SizeIs(1));
        EXPECT_EQ(decoded.samples[0].medium, 0x1234);
        EXPECT_EQ(decoded.samples[0].small, 0x2A);
        EXPECT_EQ(decoded.samples[0].text.value_or("ab"), "ab");
        EXPECT_EQ(decoded.report.doubledMembers, doubled);
    }
}

TEST(Codec, AStructureThatEndsInsideAMemberIsReported) {
    const Bytes whole = kU8 + kU16 + kU32 + kF64 + kText + Bytes{0x77, 0xFF, 0, 0, 0, 2, 1, 2};
    // A structure may end after each member.
    const std::set<std::size_t> ends = {0, 3, 7, 13, 23, 32};
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const auto decoded =
            decode(payloadOf({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}));
        EXPECT_EQ(decoded.good, ends.contains(size)) << size << " bytes";
        if (!decoded.good) {
            EXPECT_EQ(decoded.report.result, Truncated) << size << " bytes";
            EXPECT_THAT(decoded.report.error,
                        HasSubstr("[PRS_SOMEIP_00900]: Record length given by sender is too small."));
            EXPECT_THAT(decoded.samples, IsEmpty());
        }
    }
    // A good structure does not save the wrong one after it.
    EXPECT_EQ(decode(lengthAnd(lengthAnd(kU8) + lengthAnd({0x00, 0x01}))).report.result, Truncated);
}

TEST(Codec, RefusesContradictions) {
    const std::tuple<const char*, Bytes, DecodeResult> cases[] = {
        {"array longer than the message", {0, 0, 0, 5, 0, 0, 0, 0}, Malformed},
        {"array of 4 GiB", {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}, Malformed},
        {"structure of 4 GiB", lengthAnd({0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 2}), Malformed},
        {"structure longer than the array", lengthAnd({0, 0, 0, 4, 0, 1, 2}), Malformed},
        {"three bytes left in the array", lengthAnd(lengthAnd(kU8) + Bytes{0, 0, 0}), Malformed},
        {"three bytes in all", {0, 0, 0}, Malformed},
        {"inner length of 4 GiB", payloadOf({0x70, 0x07, 0xFF, 0xFF, 0xFF, 0xFF, 1}), Truncated},
        {"unknown member of unknown width", payloadOf({0x47, 0xFF, 0, 0, 0, 1, 1}), Malformed},
        {"reserved bit", payloadOf({0x80, 0x01, 0x2A}), Malformed},
        {"wrong wire type", payloadOf({0x10, 0x01, 0x00, 0x2A}), Malformed},
        {"text as scalar", payloadOf({0x00, 0x07, 0x2A}), Malformed},
        {"text without mark", payloadOf({0x50, 0x07, 0x03, 'a', 'b', 0}), Malformed},
        {"text without end", payloadOf({0x50, 0x07, 0x05, 0xEF, 0xBB, 0xBF, 'a', 'b'}), Malformed},
        {"text of nothing", payloadOf({0x50, 0x07, 0x00}), Malformed},
        {"more than the most empty structures", lengthAnd(Bytes(4 * someip::kMaxSamplesPerMessage + 4, 0)),
         Malformed},
        {"doubled member of another type", payloadOf(kU8 + Bytes{0x10, 0x01, 0, 1}), Malformed},
    };
    const Bytes most(4 * someip::kMaxSamplesPerMessage, 0);
    EXPECT_THAT(decode(lengthAnd(most)).samples, SizeIs(someip::kMaxSamplesPerMessage));
    for (const auto& [what, payload, result] : cases) {
        const auto decoded = decode(payload);
        EXPECT_FALSE(decoded.good) << what;
        EXPECT_EQ(decoded.report.result, result) << what << ": " << decoded.report.error;
        EXPECT_FALSE(decoded.report.error.empty()) << what;
    }
}
