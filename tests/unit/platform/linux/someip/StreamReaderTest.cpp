#include "someip/StreamReader.h"

#include "someip/Message.h"
#include "tests/support/Test.h"

using namespace someip;
using namespace vlmTest;

namespace {

std::string message(std::size_t payload, char with, Header header = {}) {
    std::string bytes(kHeaderSize + payload, with);
    header.length = static_cast<std::uint32_t>(kLengthCovers + payload);
    writeHeader(header, reinterpret_cast<std::uint8_t*>(bytes.data()));
    return bytes;
}

/// Feeds the stream in pieces of that size; the last byte of each message that comes out, and its size.
std::vector<std::string> read(StreamReader& reader, std::string_view stream, std::size_t piece) {
    std::vector<std::string> messages;
    while (!stream.empty()) {
        const auto space = reader.space();
        const auto size = std::min({piece, space.size(), stream.size()});
        std::ranges::copy(stream.substr(0, size), space.begin());
        reader.filled(size);
        stream.remove_prefix(size);
        for (auto one = reader.next(); !one.empty(); one = reader.next()) {
            messages.push_back(static_cast<char>(one.back()) + std::to_string(one.size()));
        }
    }
    return messages;
}

}  // namespace

TEST(StreamReader, MessagesBeginAndEndAnywhereAndCookiesAreSkipped) {
    Header cookie;
    cookie.service = 0xFFFF;
    cookie.method = 0x8000;
    cookie.client = 0xDEAD;
    cookie.session = 0xBEEF;
    const std::string stream = message(0, 'h', cookie) + message(5, 'a') + message(30000, 'b') +
                               message(0, 'h', cookie) + message(1, 'c');
    for (const std::size_t piece : {1, 15, 16, 17, 4096, 100000}) {
        StreamReader reader(65536);
        EXPECT_THAT(read(reader, stream, piece), ElementsAre("a21", "b30016", "c17")) << piece;
        EXPECT_FALSE(reader.broken());
    }
}

TEST(StreamReader, AnImpossibleLengthEndsTheStreamAndAPromisedOneTakesNoMemory) {
    for (const std::uint32_t length : {0u, 7u, 1009u, 0xFFFFFFFFu}) {
        StreamReader reader(1016);
        std::string bad = message(8, 'x');
        storeBig(reinterpret_cast<std::uint8_t*>(bad.data()) + 4, length);
        EXPECT_THAT(read(reader, message(1000, 'g') + bad + message(1, 'l'), 100), ElementsAre("g1016"))
            << length;
        EXPECT_TRUE(reader.broken()) << length;
    }
    StreamReader reader(1u << 30);
    std::string promise = message(8, 'x');
    storeBig(reinterpret_cast<std::uint8_t*>(promise.data()) + 4, 1u << 29);
    EXPECT_THAT(read(reader, promise, 1), IsEmpty());
    EXPECT_FALSE(reader.broken());
    EXPECT_LT(reader.space().size(), 1u << 17);
}
