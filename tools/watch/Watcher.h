#pragma once
/// Finds and subscribes the selected events, and queues their samples.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kyo/WakeFd.h"
#include "someip/Runtime.h"
#include "tools/watch/Selection.h"

namespace vlmWatch {

/// One sample that has arrived.
struct Arrival {
    std::size_t selected;  ///< position in the selection
    std::uint16_t instance;
    std::int64_t timeUs;  ///< wall clock, microseconds since 1970; equal for the samples of a notification
    std::optional<std::int64_t> index;
    qdr::services::DecodedSample values;
};

class Watcher {
  public:
    /// `selection` must outlive the watcher, and `runtime` too. The runtime need not run yet.
    Watcher(someip::Runtime& runtime, const std::vector<Selected>& selection);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Subscribes instances that have appeared since the last call, and searches missing services. To be
    /// called several times a second.
    void search();
    /// Readable when samples wait.
    int descriptor() const noexcept { return m_wake.get(); }
    /// Returns and removes the waiting samples.
    std::vector<Arrival> take();
    /// Samples that were dropped because nobody took them in time.
    std::uint64_t dropped() const;

    /// Returns what is wrong with an event: "is offered by nobody", ...; empty while its samples arrive.
    std::string trouble(std::size_t selected) const;
    /// Returns the same for the whole selection: a line for each trouble, with the services or events that
    /// have it.
    std::vector<std::string> troubles() const;

    /// Samples waiting, at most.
    static constexpr std::size_t kMaxWaiting = 65536;
    /// Instances of one service, at most.
    static constexpr std::size_t kMaxInstances = 16;

  private:
    using Clock = std::chrono::steady_clock;
    using Offers = std::vector<someip::RemoteService>;

    /// What has come of an event.
    struct Seen {
        Clock::time_point last;  ///< of a selected sample
        bool selected = false;   ///< at least one
        bool other = false;      ///< at least one that is not selected, and
        std::optional<std::int64_t> otherIndex;
    };

    std::string trouble(std::size_t selected, const Offers& offers) const;
    std::string missing(std::size_t selected, const someip::RemoteService& offer) const;
    void receive(std::size_t selected, std::uint16_t instance, std::span<const std::uint8_t> payload,
                 someip::DecodeReport& report);

    someip::Runtime& m_runtime;
    const std::vector<Selected>& m_selection;
    std::vector<std::size_t> m_indexFields;  ///< by position in the selection
    std::map<std::pair<std::size_t, std::uint16_t>, std::shared_ptr<someip::EventReceiver>> m_receivers;
    kyo::WakeFd m_wake;
    mutable std::mutex m_guard;  ///< guards the members below
    std::vector<Arrival> m_waiting;
    std::vector<Seen> m_seen;  ///< by position in the selection
    std::uint64_t m_dropped = 0;
};

}  // namespace vlmWatch
