#include "backend/Health.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "kyo/DateTime.h"
#include "kyo/Status.h"

namespace kyo::orx {

namespace {

constexpr std::array kTopics{"config.",  "control.", "orx.",   "queue.",
                             "reports.", "someip.",  "spool.", "threads."};
constexpr std::array kLosses{"dropped",   "failed",        "Failed",    "refused",
                             "discarded", "setAside",      "malformed", "truncated",
                             "ignored",   "kernelDropped", "givenUp",   "undelivered"};

bool isTopic(std::string_view name) {
    return std::any_of(kTopics.begin(), kTopics.end(),
                       [name](const char* topic) { return name.starts_with(topic); });
}

bool isLoss(std::string_view name) {
    return std::any_of(kLosses.begin(), kLosses.end(),
                       [name](const char* loss) { return name.find(loss) != std::string_view::npos; });
}

}  // namespace

void Health::noteConfiguration(const std::string& recordId, bool isAccepted, const std::string& reason) {
    const auto same = std::find_if(m_configurations.begin(), m_configurations.end(),
                                   [&recordId](const Configuration& c) { return c.recordId == recordId; });
    if (same != m_configurations.end()) {
        m_configurations.erase(same);
    }
    m_configurations.push_back({recordId, isAccepted, reason});
    if (m_configurations.size() > kConfigurations) {
        m_configurations.pop_front();
    }
}

std::optional<Json::Value> Health::due(Clock::time_point now, std::uint64_t waiting, std::uint64_t bytes) {
    if (now < m_next) {
        return std::nullopt;
    }
    Json::Value message(Json::objectValue);
    Json::Value& counters = message["counters"] = Json::Value(Json::objectValue);
    Json::Value difference(Json::objectValue);
    for (const auto& [name, count] : Status::counters()) {
        if (count > 0 && isTopic(name)) {
            counters[name] = static_cast<Json::UInt64>(count);
            if (isLoss(name)) {
                difference[name] = counters[name];
            }
        }
    }
    Json::Value& configurations = message["configurations"] = Json::Value(Json::arrayValue);
    for (const Configuration& configuration : m_configurations) {
        Json::Value& entry = configurations.append(Json::Value(Json::objectValue));
        entry["recordId"] = configuration.recordId;
        entry["state"] = configuration.isAccepted ? "applied" : "refused";
        if (!configuration.isAccepted) {
            entry["reason"] = configuration.reason;
        }
    }
    difference["configurations"] = configurations;
    // One that is on its way at that moment makes no difference.
    difference["isWaiting"] = waiting > 0 && m_hasWaited;
    m_hasWaited = waiting > 0;
    const std::string text = Json::FastWriter().write(difference);
    if (text == m_published && now < m_latest) {
        m_next = std::min(now + std::chrono::seconds(5), m_latest);
        return std::nullopt;
    }
    message["waitingEnvelopes"] = static_cast<Json::UInt64>(waiting);
    message["waitingBytes"] = static_cast<Json::UInt64>(bytes);
    message["timestamp"] = static_cast<Json::UInt64>(DateTime::getCurrentTimeMs() / 1000);
    m_published = text;
    m_next = now + kLeastPause;
    m_latest = now + kLongestPause;
    return message;
}

}  // namespace kyo::orx
