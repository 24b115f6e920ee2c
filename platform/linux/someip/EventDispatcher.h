#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "someip/EventReceiver.h"
#include "someip/RateLimit.h"
#include "someip/Segmentation.h"

namespace someip {

/// Splits received datagrams into messages, checks that each comes from the peer that offers the event, and
/// gives the payloads to the receivers. Counts what it refuses. One thread; it owns neither socket nor clock.
class EventDispatcher {
  public:
    /// The peer that an event must come from, and its receiver.
    struct Route {
        Endpoint source;
        std::shared_ptr<EventReceiver> receiver;
    };

    /// No handler is called while `stop` is set.
    EventDispatcher(const ReassemblyLimits& limits, const std::atomic<bool>& stop)
        : m_reassembler(limits), m_stop(stop) {}

    void setRoutes(const std::vector<Route>& routes);
    void onDatagram(const Endpoint& from, std::span<const std::uint8_t> datagram, Clock::time_point now);
    /// Drops segmented messages that have timed out.
    void onTime(Clock::time_point now);
    Clock::time_point nextDeadline() const { return m_reassembler.nextDeadline(); }

  private:
    void onMessage(const Endpoint& from, const Header& header, std::span<const std::uint8_t> payload,
                   Clock::time_point now);
    void countDropped();

    std::unordered_map<std::uint32_t, std::vector<Route>> m_routes;  ///< by service and event
    Reassembler m_reassembler;
    std::uint64_t m_droppedBefore = 0;
    std::uint64_t m_ignoredBefore = 0;
    RateLimit m_broken;
    RateLimit m_strange;
    const std::atomic<bool>& m_stop;
};

}  // namespace someip
