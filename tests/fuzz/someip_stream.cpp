/// A TCP stream that comes in pieces, whose sizes are the first bytes: the same messages as from one piece,
/// and no more memory than came.
#include "Fuzzing.h"
#include "someip/Message.h"
#include "someip/StreamReader.h"

using namespace someip;
using namespace vlmFuzz;

namespace {

constexpr std::size_t kMost = 4096;
using Messages = std::vector<std::vector<std::uint8_t>>;

/// The messages of `stream`, and whether it is broken.
std::pair<Messages, bool> read(Bytes stream, const std::vector<std::size_t>& pieces) {
    StreamReader reader(kMost);
    Messages messages;
    const std::size_t all = stream.size();
    for (std::size_t piece = 0; !stream.empty(); ++piece) {
        const auto space = reader.space();
        require(space.size() <= 2 * all + (64u << 10), "space does not follow a promised length");
        const std::size_t size = std::min({stream.size(), space.size(), pieces[piece % pieces.size()]});
        std::ranges::copy(stream.first(size), space.begin());
        reader.filled(size);
        stream = stream.subspan(size);
        for (auto message = reader.next(); !message.empty(); message = reader.next()) {
            require(message.size() >= kHeaderSize && message.size() <= kMost,
                    "a message has a header and a limit");
            messages.emplace_back(message.begin(), message.end());
        }
    }
    return {messages, reader.broken()};
}

}  // namespace

void vlmFuzz::run(Input in) {
    std::vector<std::size_t> pieces;
    for (int i = 0; i < 4; ++i) {
        pieces.push_back(1 + in.byte());
    }
    const Bytes stream = in.rest();
    require(read(stream, pieces) == read(stream, {stream.size() + 1}), "pieces make no difference");
}
