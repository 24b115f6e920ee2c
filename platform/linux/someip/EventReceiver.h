#pragma once
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <string>

#include "ac/com/types.h"
#include "someip/CallGate.h"
#include "someip/RateLimit.h"
#include "someip/Samples.h"
#include "someip/ServiceDiscovery.h"

namespace someip {

/// One client's request for an event, and the handler that gets the payloads.
class EventReceiver {
  public:
    using Handler = std::function<void(std::span<const std::uint8_t> payload, DecodeReport& report)>;

    EventReceiver(const ac::com::ServiceInterface& service, std::uint16_t instance,
                  const ac::com::EventInterface& event, Handler handler);

    const EventgroupKey& eventgroup() const noexcept { return m_eventgroup; }
    std::uint16_t event() const noexcept { return m_event; }
    /// The protocol of the description.
    Protocol protocol() const noexcept { return m_protocol; }
    /// "service GNSS, event positions"
    const std::string& name() const noexcept { return m_name; }

    /// What became of a notification.
    enum class Outcome : std::uint8_t {
        Taken,
        Closed,  ///< no handler is called any more
        Truncated,
        Malformed,
        Failed,  ///< the handler threw
    };
    /// Calls the handler. What it could not use is logged here; the caller counts.
    Outcome deliver(std::span<const std::uint8_t> payload, const Endpoint& from);
    /// After this no handler is called; waits for one that is under way unless the caller is inside it.
    void close() noexcept { m_gate.close(); }

  private:
    void logLimited(RateLimit& limit, const std::string& what, const Endpoint& from);

    const EventgroupKey m_eventgroup;
    const std::uint16_t m_event;
    const Protocol m_protocol;
    const std::string m_name;
    const Handler m_handler;
    CallGate m_gate;
    std::mutex m_limits;  ///< guards the two below
    RateLimit m_undecodable;
    RateLimit m_failed;
};

}  // namespace someip
