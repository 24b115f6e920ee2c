/// Datagrams from several peers, with time between them, through the dispatcher: headers, routes, segments.
#include "Messages.h"
#include "someip/EventDispatcher.h"

using namespace someip;
using namespace std::chrono_literals;
using namespace vlmFuzz;

namespace {

constexpr ac::com::ServiceInterface kService{"Fuzzed", 0x1234, 1, 0};
constexpr ac::com::EventInterface kEvents[] = {{"first", 0x8001, 1}, {"second", 0x8002, 2}};
constexpr Endpoint kPeers[] = {
    {0x7F000002, 40000}, {0x7F000002, 40001}, {0x7F000003, 40000}, {0x0A000001, 1}};
constexpr ReassemblyLimits kLimits{4096, 12288, 4, 500ms};

}  // namespace

void vlmFuzz::run(Input in) {
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
            case 0:
                dispatcher.onDatagram(
                    from, in.take(std::min<std::size_t>(in.word(), kLimits.maxMessageBytes)), now);
                break;
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
