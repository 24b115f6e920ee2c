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

/// Takes received datagrams apart, checks what they say against who may say it, and hands payloads to the
/// receivers. What is refused is counted. One thread, no socket, no clock.
class EventDispatcher {
  public:
    /// Where an event may come from, and who gets it.
    struct Route {
        Endpoint source;
        std::shared_ptr<EventReceiver> receiver;
    };

    /// While `stop` is set no handler is called.
    EventDispatcher(const ReassemblyLimits& limits, const std::atomic<bool>& stop)
        : m_reassembler(limits), m_stop(stop) {}

    /// Replaces all routes.
    void setRoutes(const std::vector<Route>& routes);
    void onDatagram(const Endpoint& from, std::span<const std::uint8_t> datagram, Clock::time_point now);
    /// Drops segmented messages whose time is over.
    void onTime(Clock::time_point now);
    Clock::time_point nextDeadline() const { return m_reassembler.nextDeadline(); }

  private:
    void onMessage(const Endpoint& from, const Header& header, std::span<const std::uint8_t> payload,
                   Clock::time_point now);
    void countDropped();

    std::unordered_map<std::uint32_t, std::vector<Route>> m_routes;  ///< by service and event
    Reassembler m_reassembler;
    std::uint64_t m_droppedBefore = 0;
    std::vector<std::uint8_t> m_joined;
    RateLimit m_broken;
    RateLimit m_strange;
    const std::atomic<bool>& m_stop;
};

}  // namespace someip
