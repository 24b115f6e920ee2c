#pragma once
/// The server side of a service: the base of generated skeletons.
///
/// A skeleton may be created before the middleware is started (runtime/component.h) and may outlive it: its
/// service is offered whenever the middleware runs.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ac/com/types.h"
#include "someip/Samples.h"
#include "someip/WireFault.h"

namespace someip {
class Runtime;
class EventSender;
class ServiceProvider;
}  // namespace someip

namespace ac::com {

/// One offered instance of a service.
class SkeletonBase {
  public:
    /// Uses the middleware of the process.
    explicit SkeletonBase(const ServiceInterface& service, std::uint16_t instance = 1);
    /// Uses the caller's runtime (tests), which must outlive the skeleton.
    SkeletonBase(const ServiceInterface& service, std::uint16_t instance, someip::Runtime& runtime);
    /// Stops the offer.
    ~SkeletonBase();
    SkeletonBase(const SkeletonBase&) = delete;
    SkeletonBase& operator=(const SkeletonBase&) = delete;

    /// Starts the offer; does not block. Returns false when the middleware was started for clients only.
    bool OfferService();
    /// Sends stop-offer and removes all subscribers.
    void StopOfferService();

    const ServiceInterface& serviceInterface() const noexcept { return m_service; }
    const std::shared_ptr<someip::ServiceProvider>& provider() const noexcept { return m_provider; }
    someip::Runtime& runtime() const noexcept { return m_runtime; }

  private:
    const ServiceInterface m_service;
    someip::Runtime& m_runtime;
    const std::shared_ptr<someip::ServiceProvider> m_provider;
};

/// The part of an event that does not depend on its data type.
class EventPublication {
  public:
    EventPublication(const EventPublication&) = delete;
    EventPublication& operator=(const EventPublication&) = delete;

    /// The current number of subscribers.
    std::size_t subscribers() const;
    /// `handler` is called on a thread of the middleware, outside any lock, when a peer subscribes for the
    /// first time and when its subscription ends. `peer` is its receiving endpoint ("127.0.0.1:40001").
    void setSubscriptionHandler(std::function<void(const std::string& peer, bool subscribed)> handler);

  protected:
    EventPublication(SkeletonBase& owner, const EventInterface& event);
    ~EventPublication();
    /// Both send the payload that follows 16 reserved bytes in `message`. Return false when a datagram to a
    /// subscriber could not be sent.
    bool send(std::vector<std::uint8_t>& message);
    bool sendFaulty(std::vector<std::uint8_t>& message, const someip::WireFault& fault);
    /// Returns this thread's buffer, empty except for the space for a header.
    static std::vector<std::uint8_t>& messageBuffer();

  private:
    someip::Runtime& m_runtime;
    const std::shared_ptr<someip::ServiceProvider> m_provider;
    const std::shared_ptr<someip::EventSender> m_sender;
};

/// An event of an offered service. Any thread may send; sending happens on the caller's thread.
template <typename DT>
class SkeletonEvent : public EventPublication {
  public:
    SkeletonEvent(SkeletonBase& owner, const EventInterface& event) : EventPublication(owner, event) {}

    /// Sends one notification to each subscriber, segmented when it is larger than a datagram.
    bool Send(const std::vector<DT>& samples) {
        auto& message = messageBuffer();
        someip::appendSamples(samples, message);
        return send(message);
    }
    /// As Send(), with a deliberate error in the message.
    bool SendFaulty(const std::vector<DT>& samples, const someip::WireFault& fault) {
        auto& message = messageBuffer();
        someip::appendSamples(samples, message);
        return sendFaulty(message, fault);
    }
};

}  // namespace ac::com
