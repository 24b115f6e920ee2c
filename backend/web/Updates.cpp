#include "backend/web/Updates.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <variant>

namespace vlmBackend::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPeriod{1};
constexpr std::chrono::seconds kComment{15};
/// Vehicles in one event; if more have changed, readers only learn that.
constexpr std::size_t kMostVehicles = 1000;
/// A change is looked for this long: a transaction may take its time, and instances have clocks of their own.
constexpr std::int64_t kLatelyMs = 10'000;
constexpr std::chrono::seconds kFirst{
    5};  ///< until a reader gets what there is, even if the database does not answer

kyo::Json::Value valueOf(const store::Cell& cell) {
    return std::holds_alternative<std::monostate>(cell) ? kyo::Json::Value()
                                                        : kyo::Json::Value(store::integer(cell));
}

}  // namespace

Updates::Updates(Readers& readers, Metrics& metrics)
    : m_readers(readers), m_metrics(metrics), m_thread([this] { run(); }) {}

Updates::~Updates() {
    end();
    m_thread.join();
}

void Updates::end() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ending = true;
    m_changed.notify_all();
}

void Updates::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_ending || m_listening != 0; });
        if (m_ending) {
            return;
        }
        lock.unlock();
        poll();
        lock.lock();
        m_changed.wait_for(lock, kPeriod, [this] { return m_ending; });
    }
}

void Updates::poll() {
    std::map<std::string, std::string> found;
    store::ChangeCounts changes = m_changes;
    bool read = false;
    try {
        m_readers.use([&](store::Sql& sql) {
            changes = store::changeCounts(sql);
            const store::Cell parameters[] = {kLatelyMs, static_cast<std::int64_t>(kMostVehicles + 1)};
            sql.stream(
                "SELECT v.name, v.online, v.reports, l.received, l.measured_to FROM vehicles v LEFT JOIN "
                "reports l ON l.id = v.last_report WHERE v.changed >= (SELECT MAX(changed) FROM vehicles) - "
                "$1 "
                "ORDER BY v.changed DESC LIMIT $2",
                parameters, [&found](const store::Row& row) {
                    kyo::Json::Value state;
                    state["name"] = store::text(row[0]);
                    state["online"] = store::integer(row[1]) != 0;
                    state["reports"] = kyo::Json::Value(store::integer(row[2]));
                    state["receivedMs"] = valueOf(row[3]);
                    state["measuredToMs"] = valueOf(row[4]);
                    found[store::text(row[0])] = kyo::Json::FastWriter().write(state);
                    return true;
                });
        });
        read = true;
    } catch (const std::exception&) {
        // The readers keep what they have; /healthz says what is wrong.
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_polls;
    m_configurations += m_changes == changes ? 0 : 1;
    m_changes = changes;
    if (read) {
        take(std::move(found));
    }
    m_changed.notify_all();
}

/// Under the lock.
void Updates::take(std::map<std::string, std::string> found) {
    const std::uint64_t next = m_version + 1;
    if (found.size() > kMostVehicles) {
        m_states.clear();
        m_version = m_forgotten = next;
        return;
    }
    std::erase_if(m_states, [&](const auto& known) {
        const bool old = !found.contains(known.first);
        m_forgotten = old ? std::max(m_forgotten, known.second.version) : m_forgotten;
        return old;
    });
    for (auto& [name, text] : found) {
        State& known = m_states[name];
        if (known.text != text) {
            known = {std::move(text), next};
            m_version = next;
        }
    }
}

/// The events that a reader with these versions lacks; it has them then. Under the lock.
std::string Updates::news(std::uint64_t& sent, std::uint64_t& configurations, bool first) const {
    std::string out;
    if (!first && sent < m_forgotten) {
        out = "event: many\ndata: {}\n\n";
    }
    if (first || sent != m_version) {
        out += "event: vehicles\ndata: [";
        bool any = false;
        for (const auto& [name, state] : m_states) {
            if (state.version > sent) {
                out += (any ? "," : "") + state.text;
                any = true;
            }
        }
        out += "]\n\n";
        sent = m_version;
    }
    if (configurations != m_configurations) {
        out += "event: configurations\ndata: {}\n\n";
        configurations = m_configurations;
    }
    return out;
}

void Updates::serve(const Put& put) {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_listening;
    const std::uint64_t polled = m_polls;
    std::uint64_t sent = 0;
    std::uint64_t configurations = m_configurations;
    m_changed.notify_all();
    // A poll that runs already may have read before: the next one counts only if there was a wait. Either is
    // new enough.
    m_changed.wait_for(lock, kFirst, [&] { return m_ending || m_polls != polled; });
    auto written = Clock::now();
    for (bool first = true; !m_ending; first = false) {
        std::string text = news(sent, configurations, first);
        lock.unlock();
        if (text.empty() && Clock::now() - written >= kComment) {
            text = ": nothing new\n\n";
        }
        const bool there = put(text);
        written = text.empty() ? written : Clock::now();
        lock.lock();
        if (!there) {
            break;
        }
        // At most one event a second; a client that has gone is noticed as soon.
        m_changed.wait_for(lock, kPeriod, [this] { return m_ending; });
    }
    --m_listening;
}

void Updates::addRoutes(Router& router) {
    router.add("GET", "/api/updates", Role::View, [this](const Request&) {
        // Counted until the answer is destroyed, whether its stream was asked for or not.
        const std::shared_ptr<void> counted(nullptr, [this](void*) { --m_metrics.updateReaders; });
        if (++m_metrics.updateReaders > kMostReaders) {
            throw Problem(503, "too many readers of /api/updates: at most " + std::to_string(kMostReaders));
        }
        Response out;
        out.type = "text/event-stream";
        out.stream = [this, counted](const Put& put) { serve(put); };
        return out;
    });
}

}  // namespace vlmBackend::web
