#include "app/CounterLog.h"

#include <string_view>
#include <utility>

#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

constexpr std::chrono::minutes kPeriod{1};

bool belongsToLog(std::string_view name) {
    return name.substr(0, 4) == "log." && name.substr(0, 11) != "log.dropped";
}

}  // namespace

void CounterLog::check(Clock::time_point now) {
    if (now < m_next || !kyo::Log::enabled(5)) {
        return;
    }
    m_next = now + kPeriod;
    auto counters = kyo::Status::counters();
    std::string changes;
    for (const auto& [name, count] : counters) {
        const auto before = m_logged[name];
        if (count != before && !belongsToLog(name)) {
            changes += (changes.empty() ? "" : ", ") + name + ' ' + std::to_string(count) + " (+" +
                       std::to_string(count - before) + ')';
        }
    }
    m_logged = std::move(counters);
    if (!changes.empty()) {
        VLM_LOG(5, "Counters that changed: " << changes);
    }
}

}  // namespace vlmProd
