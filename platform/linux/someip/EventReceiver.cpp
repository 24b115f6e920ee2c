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
      m_protocol(event.reliable ? Protocol::Tcp : Protocol::Udp),
      m_name(std::string("service ") + service.name + ", event " + event.name),
      m_handler(std::move(handler)) {}

EventReceiver::Outcome EventReceiver::deliver(std::span<const std::uint8_t> payload, const Endpoint& from) {
    const CallGate::Pass pass(m_gate);
    if (!pass) {
        return Outcome::Closed;
    }
    DecodeReport report;
    try {
        m_handler(payload, report);
    } catch (const std::exception& failure) {
        logLimited(m_failed, std::string("A receive handler has failed: ") + failure.what(), from);
        return Outcome::Failed;
    } catch (...) {
        logLimited(m_failed, "A receive handler has failed: unknown exception", from);
        return Outcome::Failed;
    }
    if (report.doubledMembers != 0) {
        counters().doubledMembers.add(report.doubledMembers);
    }
    if (report.result == DecodeResult::Good) {
        return Outcome::Taken;
    }
    const bool truncated = report.result == DecodeResult::Truncated;
    logLimited(m_undecodable, truncated ? report.error : "A notification cannot be decoded: " + report.error,
               from);
    return truncated ? Outcome::Truncated : Outcome::Malformed;
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
