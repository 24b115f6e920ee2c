#pragma once
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "someip/EventSender.h"
#include "someip/KnownServices.h"
#include "someip/NetworkAccess.h"

namespace someip {

/// What this process offers: services, their events, and the subscribers of these. The offers outlive the
/// network. Guarded by the runtime's lock.
class ServerSide final : public SdServerObserver {
  public:
    explicit ServerSide(KnownServices& services) : m_services(services) {}

    struct Rules {
        bool offers = true;    ///< else the process was started for clients only
        bool overTcp = false;  ///< all events, whatever their descriptions say
    };
    void set(const Rules& rules) { m_rules = rules; }
    /// While silent, no event is sent.
    void setSilent(bool silent);
    /// Passes all offers to the network, which is open from now on; none: it is closed.
    void attach(NetworkAccess* network, Clock::time_point now);

    std::shared_ptr<EventSender> addEvent(ServiceProvider& provider, const ac::com::EventInterface& event,
                                          Clock::time_point now);
    void removeEvent(ServiceProvider& provider, const std::shared_ptr<EventSender>& sender,
                     Clock::time_point now);
    /// Returns false in a process that was started for clients only.
    bool offer(const std::shared_ptr<ServiceProvider>& provider, Clock::time_point now);
    void stopOffer(const std::shared_ptr<ServiceProvider>& provider);

    /// A change for a subscription handler, which is called outside the lock.
    struct Notice {
        std::shared_ptr<EventSender> sender;
        Endpoint receiver;
        bool subscribed;
    };
    /// Returns and forgets the changes.
    std::vector<Notice> takeNotices() { return std::exchange(m_notices, {}); }

  private:
    void subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    void subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint& receiver) override;
    template <typename Change>
    void change(const EventgroupKey& eventgroup, const Endpoint& receiver, bool subscribed, Change&& act);
    void apply(const ServiceProvider& provider, Clock::time_point now);
    Protocol protocolOf(const EventSender& sender) const noexcept;

    KnownServices& m_services;
    Rules m_rules;
    bool m_silent = false;
    NetworkAccess* m_network = nullptr;
    std::vector<std::shared_ptr<ServiceProvider>> m_providers;  ///< those that are offered
    std::map<EventgroupKey, ChangeLimit> m_changes;             ///< only of what is offered
    std::vector<Notice> m_notices;
};

}  // namespace someip
