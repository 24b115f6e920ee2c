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
    ++m_routesVersion;
    for (const Route& route : routes) {
        const ServiceKey& service = route.receiver->eventgroup().service;
        const auto event = route.receiver->event();
        const auto [place, added] = m_senders.try_emplace({service, route.source});
        Sender& sender = place->second;
        if (added || sender.life != route.life) {
            sender = {};
            sender.life = route.life;
            m_reassembler.forget(route.source, service.service);
        }
        sender.routesVersion = m_routesVersion;
        m_routes[routeKey(service.service, event)].push_back(
            {route, &sender.sessions, &sender.sessions.ofEvent(event)});
    }
    std::erase_if(m_senders, [&](const auto& one) { return one.second.routesVersion != m_routesVersion; });
    countDropped();
}

void EventDispatcher::onDatagram(const Endpoint& from, std::span<const std::uint8_t> datagram,
                                 Clock::time_point now) {
    counters().datagrams.add();
    MessageReader messages(datagram);
    Header header;
    std::span<const std::uint8_t> payload;
    unsigned parts = 0;
    while (messages.next(header, payload)) {
        ++parts;
        onMessage(from, header, payload, now);
    }
    const bool broken = messages.malformed() || datagram.empty();
    parts += broken ? 1 : 0;
    if (parts > 1) {
        counters().bundled.add(parts - 1);
    }
    if (broken) {
        counters().malformed.add();
        if (const auto unlogged = m_broken.note(now)) {
            KYO_LOG(5, "A datagram from " << toText(from) << " with " << datagram.size()
                                          << " bytes is no sequence of messages" << more(*unlogged));
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
        judgeOther(from, header);
        return;
    }
    const KnownRoute* accepted = nullptr;
    bool rightPeer = false;
    for (const KnownRoute& known : found->second) {
        rightPeer = rightPeer || known.route.source == from;
        if (accepts(known.route, from, header)) {
            accepted = &known;
            break;
        }
    }
    if (accepted == nullptr) {
        (rightPeer ? counters().wrongVersion : counters().wrongPeer).add();
        if (const auto unlogged = m_strange.note(now)) {
            KYO_LOG(5, "A notification of " << found->second.front().route.receiver->name()
                                            << " is not taken from " << toText(from)
                                            << " with interface version " << header.interfaceVersion
                                            << more(*unlogged));
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
    const auto verdict = accepted->sessions->judge(*accepted->sequence, header.session);
    if (verdict.missing != 0) {
        counters().sessionGaps.add(verdict.missing);
    }
    if (verdict.repeated) {
        counters().sessionRepeats.add();
    }
    deliver(found->second, from, header, payload);
}

/// A sender that counts its events together counts those that nobody has subscribed as well.
void EventDispatcher::judgeOther(const Endpoint& from, const Header& header) {
    auto one = m_senders.lower_bound({ServiceKey{header.service, 0, 0}, {}});
    for (; one != m_senders.end() && one->first.first.service == header.service; ++one) {
        if (one->first.second == from && one->first.first.major == header.interfaceVersion) {
            counters().sessionGaps.add(one->second.sessions.judgeOther(header.session));
        }
    }
}

void EventDispatcher::deliver(const std::vector<KnownRoute>& routes, const Endpoint& from,
                              const Header& header, std::span<const std::uint8_t> payload) {
    using Outcome = EventReceiver::Outcome;
    auto outcome = Outcome::Closed;  // the first receiver's that is open
    for (const KnownRoute& known : routes) {
        if (accepts(known.route, from, header) && !m_stop.load(std::memory_order_relaxed)) {
            const auto one = known.route.receiver->deliver(payload, from);
            outcome = outcome == Outcome::Closed ? one : outcome;
        }
    }
    switch (outcome) {
        case Outcome::Taken:
            counters().notifications.add();
            break;
        case Outcome::Closed:
            counters().notSubscribed.add();
            break;
        case Outcome::Truncated:
            counters().truncated.add();
            break;
        case Outcome::Malformed:
            counters().malformed.add();
            break;
        case Outcome::Failed:
            counters().handlerFailures.add();
            break;
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
