#pragma once
/// A vehicle for load: offers every registered service with every event, and sends ready-made notifications
/// at a given rate, so that sending costs little beside receiving.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "someip/EventSender.h"

namespace vlmBench {

/// One kind of sample: an event with one value of its key.
struct Stream {
    std::string service;   ///< as a collector configuration names it
    std::string resource;  ///< the event
    int index = 0;
    ac::com::ServiceInterface interface {};
    ac::com::EventInterface event{};
    std::vector<std::uint8_t> message;  ///< room for the header, then the payload
};

/// All streams of all services that can be collected. Names in `interface` and `event` live for ever.
std::vector<Stream> allStreams();

class LoadVehicle {
  public:
    /// Starts offering. `settings` is the text of a manifest's "someip" section.
    explicit LoadVehicle(const std::string& settings);
    ~LoadVehicle();

    /// True when each event has a subscriber.
    bool isSubscribed() const;
    /// Sends `rate` samples a second, one stream after the other, each millisecond its share. The number
    /// sent, and in `seconds` how long that took.
    std::uint64_t send(double rate, double seconds, double& took);

  private:
    std::vector<Stream> m_streams;
    std::vector<std::shared_ptr<someip::ServiceProvider>> m_providers;
    std::vector<std::shared_ptr<someip::EventSender>> m_senders;  ///< of each stream
    std::size_t m_next = 0;
};

}  // namespace vlmBench
