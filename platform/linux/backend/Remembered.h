#pragma once
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "backend/SpoolDisk.h"
#include "kyo/Json.h"

namespace kyo::orx {

/// What the backend's last message said, kept beside a spool.
struct RememberedControl {
    std::string ticket;
    std::vector<std::string> permitted;
    bool namesEnvelopes = false;  ///< its results name the envelope that they belong to

    bool operator==(const RememberedControl&) const = default;
};

/// What is remembered in `folder`; nothing when there is none, or none that can be read.
std::optional<RememberedControl> readRememberedControl(const std::filesystem::path& folder);
/// 0 or errno; durable then.
int writeRememberedControl(SpoolDisk& disk, const std::filesystem::path& folder,
                           const RememberedControl& control);

/// The last configuration that the application accepted, and when it stands in for the backend's answer. It
/// has no thread and no clock, and its caller serialises the calls.
class RememberedConfiguration {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes kBetweenRequests{11};

    /// `after`: how long the backend's answer is awaited; none: nothing is remembered.
    RememberedConfiguration(std::filesystem::path folder, SpoolDisk& disk,
                            std::optional<std::chrono::seconds> after);

    /// The application asks.
    void requested(Clock::time_point now);
    /// The backend answers. False when the answer says what the last one said that was passed on in this
    /// process: then it is not passed on again.
    bool answered(const Json::Value& answer);
    /// The answer that stands in, once it is due: at most one in this process.
    std::optional<Json::Value> standIn(Clock::time_point now);
    /// True when the client itself is to ask: the application has its answer, but not from the backend.
    bool isToAsk(Clock::time_point now);
    /// On a new connection the client asks at once.
    void connected() { m_nextRequest = {}; }
    /// When standIn() or isToAsk() may say more than now.
    std::optional<Clock::time_point> wakeAt() const;

    /// The application accepted what was passed on last. 0 or errno; durable then.
    int accepted(const std::string& recordId);

  private:
    std::filesystem::path file() const { return m_folder / "configuration.json"; }

    const std::filesystem::path m_folder;
    SpoolDisk& m_disk;
    const std::optional<std::chrono::seconds> m_after;
    std::optional<Clock::time_point> m_standInAt;
    bool m_hasStoodIn = false;
    bool m_isAnswered = false;
    Clock::time_point m_nextRequest{};
    Json::Value m_passedOn;  ///< the record that was passed on last
};

}  // namespace kyo::orx
