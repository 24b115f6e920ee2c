#include "someip/EventDispatcher.h"

#include "log/PlatformLog.h"
#include "someip/Counters.h"

namespace someip {

namespace {

std::uint32_t routeKey(std::uint16_t service, std::uint16_t event) noexcept {
    return (std::uint32_t{service} << 16) | event;
}

}  // namespace

void EventDispatcher::setRoutes(const std::vector<Route>& routes) {
    m_routes.clear();
    for (const Route& route : routes) {
        const auto key = routeKey(route.receiver->eventgroup().service.service, route.receiver->event());
        m_routes[key].push_back(route);
    }
}

void EventDispatcher::onDatagram(const Endpoint& from, std::span<const std::uint8_t> datagram,
                                 Clock::time_point now) {
    counters().datagrams.add();
    MessageReader messages(datagram);
    Header header;
    std::span<const std::uint8_t> payload;
    while (messages.next(header, payload)) {
        onMessage(from, header, payload, now);
    }
    if (messages.malformed() || datagram.empty()) {
        counters().malformed.add();
        if (const auto unlogged = m_broken.note(now)) {
            KYO_LOG(5, "A datagram from " << toText(from) << " with " << datagram.size()
                                          << " bytes is no sequence of messages (" << *unlogged
                                          << " more since the last such message)");
        }
    }
}

void EventDispatcher::onMessage(const Endpoint& from, const Header& header,
                                std::span<const std::uint8_t> payload, Clock::time_point now) {
    if (header.protocolVersion != kProtocolVersion) {
        counters().wrongVersion.add();
        return;
    }
    const auto type = static_cast<MessageType>(header.type & ~kSegmentFlag);
    if (type != MessageType::Notification || header.returnCode != 0) {
        counters().malformed.add();
        return;
    }
    const auto found = m_routes.find(routeKey(header.service, header.method));
    if (found == m_routes.end()) {
        counters().notSubscribed.add();
        return;
    }
    const Route* accepted = nullptr;
    bool rightPeer = false;
    for (const Route& route : found->second) {
        if (route.source != from) {
            continue;
        }
        rightPeer = true;
        if (header.interfaceVersion == route.receiver->eventgroup().service.major) {
            accepted = &route;
            break;
        }
    }
    if (accepted == nullptr) {
        (rightPeer ? counters().wrongVersion : counters().wrongPeer).add();
        if (const auto unlogged = m_strange.note(now)) {
            KYO_LOG(5, "A notification of " << found->second.front().receiver->name() << " is not taken from "
                                            << toText(from) << " with interface version "
                                            << header.interfaceVersion << " (" << *unlogged
                                            << " more since the last such message)");
        }
        return;
    }
    if (header.isSegment()) {
        const SegmentKey key{from, header.service, header.method, header.client, header.session};
        counters().tpSegments.add();
        const bool complete = m_reassembler.add(key, payload, now, payload);
        countDropped();
        if (!complete) {
            return;
        }
        counters().tpJoined.add();
    }
    for (const Route& route : found->second) {
        if (route.source == from && header.interfaceVersion == route.receiver->eventgroup().service.major &&
            !m_stop.load(std::memory_order_relaxed)) {
            route.receiver->deliver(payload, header.session, from);
        }
    }
}

void EventDispatcher::onTime(Clock::time_point now) {
    m_reassembler.expire(now);
    countDropped();
}

void EventDispatcher::countDropped() {
    if (m_reassembler.dropped() != m_droppedBefore) {
        counters().tpDropped.add(m_reassembler.dropped() - m_droppedBefore);
        m_droppedBefore = m_reassembler.dropped();
    }
    if (m_reassembler.ignored() != m_ignoredBefore) {
        counters().tpIgnored.add(m_reassembler.ignored() - m_ignoredBefore);
        m_ignoredBefore = m_reassembler.ignored();
    }
}

}  // namespace someip
