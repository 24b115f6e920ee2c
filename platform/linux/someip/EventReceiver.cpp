#include "someip/EventReceiver.h"

#include <exception>

#include "log/PlatformLog.h"
#include "someip/Counters.h"

namespace someip {

thread_local const CallGate::Pass* CallGate::Pass::s_top = nullptr;

Counters& counters() {
    static Counters* const all = new Counters;
    return *all;
}

EventReceiver::EventReceiver(const ac::com::ServiceInterface& service, std::uint16_t instance,
                             const ac::com::EventInterface& event, Handler handler)
    : m_eventgroup{{service.serviceId, instance, service.majorVersion}, event.eventgroupId},
      m_event(event.eventId),
      m_name(std::string("service ") + service.name + ", event " + event.name),
      m_handler(std::move(handler)) {}

void EventReceiver::judgeSession(std::uint16_t session) noexcept {
    if (session == 0) {
        return;  // the sender does not number its messages
    }
    const auto last = m_lastSession.load(std::memory_order_relaxed);
    const auto ahead = static_cast<std::uint16_t>(session - last);
    if (last == 0) {  // NOLINT(bugprone-branch-clone): the cases differ in what they count
        m_lastSession.store(session, std::memory_order_relaxed);
    } else if (ahead == 0) {
        counters().sessionRepeats.add();
    } else if (ahead < 0x8000) {
        // 0xFFFF is followed by 1: there is no session 0.
        const unsigned missing = ahead - 1u - (session < last ? 1u : 0u);
        if (missing != 0) {
            counters().sessionGaps.add(missing);
        }
        m_lastSession.store(session, std::memory_order_relaxed);
    } else if (session == 1) {
        m_lastSession.store(session, std::memory_order_relaxed);  // the sender has restarted
    }
}

void EventReceiver::deliver(std::span<const std::uint8_t> payload, std::uint16_t session,
                            const Endpoint& from) {
    const CallGate::Pass pass(m_gate);
    if (!pass) {
        return;
    }
    judgeSession(session);
    counters().notifications.add();
    DecodeReport report;
    try {
        m_handler(payload, report);
    } catch (const std::exception& failure) {
        counters().handlerFailures.add();
        logLimited(m_failed, std::string("A receive handler has failed: ") + failure.what(), from);
    } catch (...) {
        counters().handlerFailures.add();
        logLimited(m_failed, "A receive handler has failed: unknown exception", from);
    }
    if (report.doubledMembers != 0) {
        counters().doubledMembers.add(report.doubledMembers);
    }
    if (report.result == DecodeResult::Good) {
        return;
    }
    const bool truncated = report.result == DecodeResult::Truncated;
    (truncated ? counters().truncated : counters().malformed).add();
    logLimited(m_undecodable, truncated ? report.error : "A notification cannot be decoded: " + report.error,
               from);
}

void EventReceiver::logLimited(RateLimit& limit, const std::string& what, const Endpoint& from) {
    std::optional<std::uint64_t> unlogged;
    {
        const std::lock_guard lock(m_limits);
        unlogged = limit.note(std::chrono::steady_clock::now());
    }
    if (unlogged) {
        KYO_LOG(3, what << " (" << m_name << ", from " << toText(from)
                        << (*unlogged == 0
                                ? std::string()
                                : ", " + std::to_string(*unlogged) + " more since the last such message")
                        << ")");
    }
}

}  // namespace someip
