/// Datagrams from several peers, with time between them, through the dispatcher: headers, routes, segments.
/// Also the reverse: segments of a message are joined again in any order.
#include "Messages.h"
#include "someip/EventDispatcher.h"

using namespace someip;
using namespace std::chrono_literals;
using vlmFuzz::Bytes;
using vlmFuzz::Input;
using vlmFuzz::require;

namespace {

constexpr ac::com::ServiceInterface kService{"Fuzzed", 0x1234, 1, 0};
constexpr ac::com::EventInterface kEvents[] = {{"first", 0x8001, 1}, {"second", 0x8002, 2}};
constexpr Endpoint kPeers[] = {
    {0x7F000002, 40000}, {0x7F000002, 40001}, {0x7F000003, 40000}, {0x0A000001, 1}};
constexpr ReassemblyLimits kLimits{4096, 12288, 4, 500ms};

void hear(Input in) {
    const std::atomic<bool> stop{false};
    EventDispatcher dispatcher(kLimits, stop);
    std::vector<EventDispatcher::Route> routes;
    for (const auto& event : kEvents) {
        // The second event comes from another peer.
        routes.push_back(
            {kPeers[routes.size()],
             std::make_shared<EventReceiver>(kService, 1, event, [](Bytes payload, someip::DecodeReport&) {
                 require(payload.size() <= kLimits.maxMessageBytes, "no payload is larger than allowed");
             })});
    }
    dispatcher.setRoutes(routes);
    Clock::time_point now{1h};
    while (!in.empty()) {
        const auto op = in.byte();
        const Endpoint& from = kPeers[(op >> 2) & 3];
        switch (op & 3) {
            case 0: {
                const Bytes datagram = in.take(std::min<std::size_t>(in.word(), kLimits.maxMessageBytes));
                dispatcher.onDatagram(from, datagram, now);
                break;
            }
            case 1:
            case 2: {
                Header header;
                header.service = kService.serviceId;
                header.method = kEvents[op >> 7].eventId;
                header.session = in.byte();
                header.type |= (op & 3) == 2 ? kSegmentFlag : 0;
                dispatcher.onDatagram(from, vlmFuzz::messageOf(header, in.take(in.byte())), now);
                break;
            }
            case 3:
                now += std::chrono::milliseconds(in.word());
                dispatcher.onTime(now);
                break;
        }
    }
    dispatcher.onTime(now + 1h);
    require(dispatcher.nextDeadline() == Clock::time_point::max(), "nothing stays open for ever");
}

void cutAndJoin(Input in) {
    Header header;
    header.session = 1;
    const std::size_t size = 1 + in.word() % 20000;
    const std::size_t steps = in.byte() % 32;
    const Bytes swaps = in.take(2 * steps);
    const Bytes pattern = in.rest();
    std::vector<std::uint8_t> payload(size);
    for (std::size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<std::uint8_t>((pattern.empty() ? 0 : pattern[i % pattern.size()]) + i / 251);
    }
    std::vector<std::vector<std::uint8_t>> segments;
    require(segment(header, payload,
                    [&](Bytes datagram) {
                        segments.emplace_back(datagram.begin() + kHeaderSize, datagram.end());
                        return true;
                    }),
            "a payload is cut");
    const std::size_t needed = segments.size();
    for (std::size_t i = 0; i + 1 < swaps.size(); i += 2) {
        std::swap(segments[swaps[i] % needed], segments[swaps[i + 1] % needed]);
    }
    Reassembler joiner({});
    const SegmentKey key{kPeers[0], 1, 2, 0, header.session};
    Bytes joined;
    std::vector<std::uint8_t> message;
    for (std::size_t i = 0; i < needed; ++i) {
        const bool complete = joiner.add(key, segments[i], Clock::time_point{1h}, joined);
        require(complete == (i + 1 == needed), "the last segment, and no other, completes the message");
        message.insert(message.end(), joined.begin(), joined.end());
        joined = {};
        // Each comes twice, as networks with two paths have it. A message of one segment comes twice then.
        require(needed == 1 || !joiner.add(key, segments[i], Clock::time_point{1h}, joined),
                "a doubled segment completes nothing");
    }
    require(message == payload, "what was cut is joined");
    joiner.expire(Clock::time_point{2h});
    require(joiner.openSets() == 0 && joiner.heldBytes() == 0 && joiner.dropped() == 0,
            "nothing is left over");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in({data, size});
    if ((in.byte() & 7) == 7) {
        cutAndJoin(in);
    } else {
        hear(in);
    }
    return 0;
}
