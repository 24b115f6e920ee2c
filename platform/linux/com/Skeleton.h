#pragma once
/// The server side of a service: what generated skeletons are made of.
///
/// A skeleton may be made before the middleware is started (runtime/component.h) and may outlive it: what it
/// offers goes on the wire whenever the middleware runs.
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
    /// Takes part in the middleware of the process.
    explicit SkeletonBase(const ServiceInterface& service, std::uint16_t instance = 1);
    /// Takes part in a middleware of the caller's own (tests), which must outlive the skeleton.
    SkeletonBase(const ServiceInterface& service, std::uint16_t instance, someip::Runtime& runtime);
    /// Stops the offer.
    ~SkeletonBase();
    SkeletonBase(const SkeletonBase&) = delete;
    SkeletonBase& operator=(const SkeletonBase&) = delete;

    /// Starts the offer; does not block. False when the middleware was started for clients only.
    bool OfferService();
    /// Says stop-offer on the wire and drops all subscribers.
    void StopOfferService();

    const ServiceInterface& serviceInterface() const noexcept { return m_service; }
    const std::shared_ptr<someip::ServiceProvider>& provider() const noexcept { return m_provider; }
    someip::Runtime& runtime() const noexcept { return m_runtime; }

  private:
    const ServiceInterface m_service;
    someip::Runtime& m_runtime;
    const std::shared_ptr<someip::ServiceProvider> m_provider;
};

/// What the events of all data types share.
class EventPublication {
  public:
    EventPublication(const EventPublication&) = delete;
    EventPublication& operator=(const EventPublication&) = delete;

    /// Number of subscribers at this moment.
    std::size_t subscribers() const;
    /// `handler` is told, on a thread of the middleware and outside any lock, when a peer
    /// ("127.0.0.1:40001", where it receives) subscribes for the first time and when it has gone.
    void setSubscriptionHandler(std::function<void(const std::string& peer, bool subscribed)> handler);
    /// `admit` decides, on a thread of the middleware that holds its lock (so it must not call into the
    /// middleware), whether a peer may subscribe; a refusal goes on the wire. None: everybody may.
    void setSubscriptionPolicy(std::function<bool(const std::string& peer)> admit);

  protected:
    EventPublication(SkeletonBase& owner, const EventInterface& event);
    ~EventPublication();
    /// Both send a payload that follows 16 free bytes in `message`. True when every subscriber was sent to;
    /// also true without subscribers.
    bool send(std::vector<std::uint8_t>& message);
    bool sendFaulty(std::vector<std::uint8_t>& message, const someip::WireFault& fault);
    /// An empty buffer of this thread with room for a header in front.
    static std::vector<std::uint8_t>& messageBuffer();

  private:
    someip::Runtime& m_runtime;
    const std::shared_ptr<someip::ServiceProvider> m_provider;
    const std::shared_ptr<someip::EventSender> m_sender;
};

/// An event of an offered service. Any thread may send; the caller's thread does the work.
template <typename DT>
class SkeletonEvent : public EventPublication {
  public:
    SkeletonEvent(SkeletonBase& owner, const EventInterface& event) : EventPublication(owner, event) {}

    /// One notification to each subscriber, segmented when it is larger than a datagram.
    bool Send(const std::vector<DT>& samples) {
        auto& message = messageBuffer();
        someip::appendSamples(samples, message);
        return send(message);
    }
    /// The same with an error in it.
    bool SendFaulty(const std::vector<DT>& samples, const someip::WireFault& fault) {
        auto& message = messageBuffer();
        someip::appendSamples(samples, message);
        return sendFaulty(message, fault);
    }
};

}  // namespace ac::com
