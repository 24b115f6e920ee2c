#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "kyo/Json.h"

namespace kyo::orx {

/// What the vehicle reports to its backend about itself, and when. It has no thread and no clock, and its
/// caller serialises the calls.
class Health {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes kLeastPause{1};
    static constexpr std::chrono::minutes kLongestPause{5};
    static constexpr std::size_t kConfigurations = 8;

    void noteConfiguration(const std::string& recordId, bool isAccepted, const std::string& reason);
    /// The message, if it is time for one: at most once a minute after a loss, a configuration, or when
    /// something begins or ceases to wait; otherwise every five minutes.
    std::optional<Json::Value> due(Clock::time_point now, std::uint64_t waiting, std::uint64_t bytes);
    /// On a new connection the message comes again, as soon as it may: the broker may have lost the last one.
    void connected() { m_latest = {}; }
    /// The message of due() was not taken; it is due again in a second.
    void notPublished(Clock::time_point now) { m_next = now + std::chrono::seconds(1); }
    /// The next due() may have something.
    Clock::time_point wakeAt() const { return m_next; }

  private:
    struct Configuration {
        std::string recordId;
        bool isAccepted;
        std::string reason;
    };
    std::deque<Configuration> m_configurations;  ///< the last ones that came, each once
    std::string m_published;                     ///< what makes a difference, as published last
    bool m_hasWaited = false;                    ///< something waited when due() considered it last
    Clock::time_point m_next{};
    Clock::time_point m_latest{};
};

}  // namespace kyo::orx
