#pragma once
#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
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

/// The last configuration that the application accepted, and when it replaces the backend's answer. It
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
    /// Whether an answer of the backend says what the last one said that was passed on in this process: then
    /// it is not passed on again.
    bool isRepeated(const Json::Value& answer) const;
    /// An answer of the backend was passed on.
    void passedOn(Json::Value answer);
    /// Returns the answer that replaces the backend's, once it is due.
    std::optional<Json::Value> standIn(Clock::time_point now);
    /// It was passed on: none replaces the backend's again in this process.
    void stoodIn(Json::Value answer, Clock::time_point now);
    /// True when the client itself is to ask: the application has its answer, but not from the backend.
    bool isToAsk(Clock::time_point now);
    /// On a new connection the client asks at once.
    void connected() { m_nextRequest = {}; }
    /// When standIn() or isToAsk() may say more than now.
    std::optional<Clock::time_point> wakeAt() const;

    using Record = std::shared_ptr<const Json::Value>;
    /// The application's verdicts come in the order in which it got the records. What to keep(), if anything.
    Record judged(const std::string& recordId, bool isAccepted);
    /// Keeps the record as the one that replaces the backend's answer. 0 or errno; durable then. May be
    /// called concurrently with the others, but by one thread at a time.
    int keep(const Json::Value& record) const;

  private:
    void note(Json::Value record);
    std::filesystem::path file() const { return m_folder / "configuration.json"; }

    const std::filesystem::path m_folder;
    SpoolDisk& m_disk;
    const std::optional<std::chrono::seconds> m_after;
    std::optional<Clock::time_point> m_standInAt;
    bool m_hasStoodIn = false;  ///< or there is none that could
    bool m_isAnswered = false;
    Clock::time_point m_nextRequest{};
    Record m_last;                  ///< the record that was passed on last; may be none
    std::deque<Record> m_unjudged;  ///< those that await the application's verdict
};

}  // namespace kyo::orx
