#pragma once
/// A vehicle for load: offers all registered services and events, and sends prepared notifications at a given
/// rate, so that sending costs little compared with receiving.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "someip/EventSender.h"

namespace vlmBench {

/// One kind of sample: an event with one value of its key.
struct Stream {
    std::string service;   ///< its name in a collector configuration
    std::string resource;  ///< the event
    int index = 0;
    ac::com::ServiceInterface interface {};
    ac::com::EventInterface event{};
    std::vector<std::uint8_t> message;  ///< space for the header, then the payload
};

/// All streams of all services that can be collected. Names in `interface` and `event` are never freed.
std::vector<Stream> allStreams();

class LoadVehicle {
  public:
    /// Starts offering. `settings` is the text of a manifest's "someip" section.
    explicit LoadVehicle(const std::string& settings);
    ~LoadVehicle();

    /// True when every event has a subscriber.
    bool isSubscribed() const;
    /// Sends `rate` samples a second for `seconds`, stream after stream, a share every millisecond. Returns
    /// the number sent, and in `took` the time needed.
    std::uint64_t send(double rate, double seconds, double& took);

  private:
    std::vector<Stream> m_streams;
    std::vector<std::shared_ptr<someip::ServiceProvider>> m_providers;
    std::vector<std::shared_ptr<someip::EventSender>> m_senders;  ///< of each stream
    std::size_t m_next = 0;
};

}  // namespace vlmBench
