#pragma once
#include <atomic>
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
    /// "service GNSS, event positions"
    const std::string& name() const noexcept { return m_name; }

    /// Calls the handler; counts and logs decoding errors and exceptions.
    void deliver(std::span<const std::uint8_t> payload, std::uint16_t session, const Endpoint& from);
    /// No handler is called afterwards. Waits for a running handler, unless the handler itself is the caller.
    void close() noexcept { m_gate.close(); }

  private:
    void judgeSession(std::uint16_t session) noexcept;
    void logLimited(RateLimit& limit, const std::string& what, const Endpoint& from);

    const EventgroupKey m_eventgroup;
    const std::uint16_t m_event;
    const std::string m_name;
    const Handler m_handler;
    CallGate m_gate;
    std::atomic<std::uint32_t> m_lastSession{0};  ///< 0: none yet
    std::mutex m_limits;                          ///< guards the two below
    RateLimit m_undecodable;
    RateLimit m_failed;
};

}  // namespace someip
