#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "someip/EventReceiver.h"
#include "someip/EventSessions.h"
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
        std::uint64_t life = 0;  ///< of the service: another one means that its sender may have restarted
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
    /// One service of one sender, from one offer to the next.
    struct Sender {
        std::uint64_t life = 0;
        std::uint64_t routesVersion = 0;  ///< of the last routes that it was part of
        ServiceSessions sessions;
    };
    struct KnownRoute {
        Route route;
        ServiceSessions* sessions = nullptr;
        SessionSequence* sequence = nullptr;
    };

    void onMessage(const Endpoint& from, const Header& header, std::span<const std::uint8_t> payload,
                   Clock::time_point now);
    void deliver(const std::vector<KnownRoute>& routes, const Endpoint& from, const Header& header,
                 std::span<const std::uint8_t> payload);
    void judgeOther(const Endpoint& from, const Header& header);
    static bool accepts(const Route& route, const Endpoint& from, const Header& header) noexcept {
        return route.source == from && header.interfaceVersion == route.receiver->eventgroup().service.major;
    }
    void countDropped();

    std::unordered_map<std::uint32_t, std::vector<KnownRoute>> m_routes;  ///< by service and event
    std::map<std::pair<ServiceKey, Endpoint>, Sender> m_senders;
    std::uint64_t m_routesVersion = 0;
    Reassembler m_reassembler;
    std::uint64_t m_droppedBefore = 0;
    std::uint64_t m_ignoredBefore = 0;
    RateLimit m_broken;
    RateLimit m_strange;
    const std::atomic<bool>& m_stop;
};

}  // namespace someip
