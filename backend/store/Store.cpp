#include "backend/store/Store.h"

#include <botan/hash.h>

#include <algorithm>
#include <charconv>
#include <numeric>
#include <tuple>

#include "backend/store/Configurations.h"
#include "backend/store/Leases.h"
#include "backend/store/Schema.h"
#include "base/LossCounters.h"
#include "json/JsonFields.h"

namespace vlmBackend::store {

namespace {

constexpr int kLevel = 3;  // of zstd, for the envelopes' texts
constexpr std::int64_t kReportsPerStep = 200;
constexpr std::int64_t kSamplesPerStep = 20'000;  // unless one report has more
constexpr std::size_t kMostName = 128;            // bytes
constexpr double kMostCounted = 1e15;             // of what a vehicle says that it lost or holds
constexpr int kTries = 3;                         // of a transaction that another instance was in the way of

/// Null for what is no number: it comes from a topic that anybody may have written.
Cell spoolNumber(const std::string& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? Cell{number} : Cell{};
}

Bytes digestOf(const std::string& payload) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(payload);
    const auto digest = hash->final();
    return {std::string(digest.begin(), digest.end())};
}

/// The order of work. Several instances that got the same envelopes must not wait for each other in a circle,
/// so there it is the same for all of them: by vehicle and age.
std::vector<std::size_t> orderOf(std::span<const Received> batch, Dialect dialect) {
    std::vector<std::size_t> order(batch.size());
    std::iota(order.begin(), order.end(), 0u);
    if (dialect == Dialect::Postgres) {
        const auto key = [&batch](std::size_t i) {
            const Received& one = batch[i];
            return std::tuple(std::string_view(one.prefix), one.spoolNumber.size(),
                              std::string_view(one.spoolNumber), std::string_view(one.text));
        };
        std::sort(order.begin(), order.end(),
                  [&key](std::size_t a, std::size_t b) { return key(a) < key(b); });
    }
    return order;
}

/// The assignment that notes a change at the given parameter's time. Never earlier than another change, since
/// readers ask for the newest ones and clocks may be set back.
std::string changedAt(const char* parameter, Dialect dialect) {
    return std::string("changed = ") + (dialect == Dialect::Sqlite ? "MAX" : "GREATEST") +
           "((SELECT MAX(changed) FROM vehicles), " + parameter + ")";
}

/// Of all counters of lost data in a health message.
std::int64_t lossesIn(const kyo::Json::Value& health) {
    const kyo::Json::Value& counters = vlmProd::member(health, "counters");
    double sum = 0;
    for (const auto& name : counters.isObject() ? counters.getMemberNames() : std::vector<std::string>()) {
        if (vlmProd::countsLoss(name) && counters[name].isNumeric()) {
            sum += std::clamp(counters[name].asDouble(), 0.0, kMostCounted);
        }
    }
    return static_cast<std::int64_t>(std::min(sum, kMostCounted));
}

}  // namespace

std::string vehicleName(std::string_view prefix) {
    return std::string(prefix.substr(prefix.rfind('/') + 1));
}

std::string nameFault(std::string_view name) {
    if (name.empty()) {
        return "the vehicle's name is empty";
    }
    if (name.size() > kMostName) {
        return "the vehicle's name is longer than " + std::to_string(kMostName) + " bytes";
    }
    return name.find_first_of("/+#") == std::string_view::npos ? "" : "the vehicle's name contains / + or #";
}

Store::Store(std::string where) : m_where(std::move(where)), m_compressor(kLevel) {
    sql();
}

Store::~Store() = default;

Sql& Store::sql() {
    if (!m_sql) {
        auto connected = connect(m_where);
        migrate(*connected);
        m_sql = std::move(connected);
    }
    return *m_sql;
}

/// After an error the connection and what was read through it are given up: the cause may be anything.
bool Store::attempt(const std::function<void()>& work, std::string& reason) {
    try {
        work();
        return true;
    } catch (const DatabaseError& error) {
        reason = error.what();
        m_cause = error.cause;
    } catch (const std::exception& error) {
        // Out of memory, or a fault of ours: the data is not stored either way.
        reason = error.what();
        m_cause = DatabaseError::Cause::Other;
    }
    m_sql.reset();
    m_vehicles.clear();
    m_events.clear();
    return false;
}

std::vector<Stored> Store::put(std::span<const Received> batch) {
    std::vector<Stored> all;
    std::string reason;
    bool done = false;
    for (int tries = 0; !done && tries < kTries; ++tries) {
        done = putAll(batch, all, reason);
        if (!done && m_cause != DatabaseError::Cause::Conflict) {
            break;
        }
    }
    if (!done && m_cause == DatabaseError::Cause::Data) {
        return putEach(batch, reason);
    }
    if (!done) {
        all.assign(batch.size(), {});
        for (Stored& one : all) {
            one.reason = reason;
        }
    }
    return all;
}

/// One of them holds what the database refuses: it alone is kept aside.
std::vector<Stored> Store::putEach(std::span<const Received> batch, const std::string& reason) {
    std::vector<Stored> all;
    if (batch.size() > 1) {
        for (const Received& one : batch) {
            all.push_back(put({&one, 1})[0]);
        }
        return all;
    }
    Received refused = batch[0];
    refused.reason = reason;
    std::string again;
    if (!putAll({&refused, 1}, all, again)) {
        all.assign(1, {});
        all[0].reason = again;
    }
    return all;
}

bool Store::putAll(std::span<const Received> batch, std::vector<Stored>& all, std::string& reason) {
    all.clear();
    return attempt(
        [&] {
            m_added.clear();
            m_newest.clear();
            for (const Received& received : batch) {
                sql().prepareSamples(received.receivedMs);
            }
            Transaction transaction(sql());
            all.resize(batch.size());
            for (const std::size_t i : orderOf(batch, sql().dialect())) {
                all[i] = putOne(batch[i]);
            }
            addTotals();
            transaction.commit();
            m_sql->tidy();
        },
        reason);
}

Stored Store::putOne(const Received& received) {
    Stored out;
    Envelope envelope;
    const std::int64_t vehicle = vehicleId(received.prefix);
    const bool isEnvelope = m_reader.read(received.text, envelope, out.reason);
    if (!received.reason.empty()) {
        out.reason = received.reason;
    }
    if (!isEnvelope || !received.reason.empty()) {
        out.outcome = keepUnusable(vehicle, received.receivedMs, out.reason, received.text, true)
                          ? Outcome::Unusable
                          : Outcome::Repeated;
        out.messageId = envelope.messageId;  // if it was read, the vehicle gets its result
        return out;
    }
    out.messageId = envelope.messageId;
    out.report = envelope.report + " #" + std::to_string(envelope.sequence);
    out.collections = envelope.collections;
    out.samples = envelope.samples.size();
    out.refused = envelope.refusedInAll;

    const std::int64_t report = insertReport(envelope, vehicle, received);
    if (report == 0) {
        out.outcome = Outcome::Repeated;
        return out;
    }
    std::vector<SampleRow> rows;
    rows.reserve(envelope.samples.size());
    std::map<std::pair<std::int64_t, std::int64_t>, const SampleRow*> newest;
    for (const Sample& sample : envelope.samples) {
        const SampleRow& row =
            rows.emplace_back(SampleRow{report, vehicle, eventId(*sample.event), sample.instance,
                                        sample.measuredMs, received.receivedMs, sample.values});
        const SampleRow*& known = newest[{row.event, row.instance}];
        if (known == nullptr || known->measuredMs <= row.measuredMs) {
            known = &row;  // stays valid: the memory is reserved
        }
    }
    m_sql->insertSamples(rows);
    for (const auto& [key, row] : newest) {
        Newest& known = m_newest[{vehicle, key.first, key.second}];
        if (known.values.empty() || known.measuredMs <= row->measuredMs) {
            known = {row->measuredMs, row->receivedMs, std::string(row->values)};
        }
    }
    Added& added = m_added[vehicle];
    ++added.reports;
    added.receivedMs = std::max(added.receivedMs, received.receivedMs);
    added.samples += static_cast<std::int64_t>(rows.size());
    added.lastReport = report;
    for (const Refused& refused : envelope.refused) {
        keepUnusable(vehicle, received.receivedMs, refused.reason,
                     refused.text.empty() ? received.text : refused.text, false);
        out.reason = refused.reason;
    }
    out.outcome = Outcome::Stored;
    return out;
}

/// Returns 0 for one that was stored before.
std::int64_t Store::insertReport(const Envelope& envelope, std::int64_t vehicle, const Received& received) {
    std::int64_t from = envelope.createdMs;
    std::int64_t to = envelope.createdMs;
    if (!envelope.samples.empty()) {
        const auto [least, greatest] =
            std::minmax_element(envelope.samples.begin(), envelope.samples.end(),
                                [](const Sample& a, const Sample& b) { return a.measuredMs < b.measuredMs; });
        from = least->measuredMs;
        to = greatest->measuredMs;
    }
    const Cell parameters[] = {envelope.messageId,
                               vehicle,
                               envelope.application,
                               envelope.report,
                               envelope.sequence,
                               envelope.catalog,
                               received.receivedMs,
                               from,
                               to,
                               static_cast<std::int64_t>(envelope.samples.size()),
                               spoolNumber(received.spoolNumber),
                               static_cast<std::int64_t>(received.wireBytes),
                               Bytes{m_compressor.compress(received.text)}};
    const auto inserted = m_sql->query(
        "INSERT INTO reports (message_id, vehicle, application, name, sequence, catalog, received, "
        "measured_from, measured_to, samples, spool_number, wire_bytes, envelope) "
        "VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13) "
        "ON CONFLICT (vehicle, message_id) DO NOTHING RETURNING id",
        parameters);
    return inserted.empty() ? 0 : integer(inserted[0][0]);
}

/// The rows that most batches change, as late as possible: other instances wait for them.
void Store::addTotals() {
    for (const auto& [vehicle, added] : m_added) {
        const Cell parameters[] = {vehicle,
                                   added.reports,
                                   added.samples,
                                   added.unusable,
                                   added.lastReport == 0 ? Cell{} : Cell{added.lastReport},
                                   added.receivedMs};
        m_sql->query(
            "UPDATE vehicles SET reports = reports + $2, samples = samples + $3, unusable = unusable + $4, "
            "last_report = COALESCE($5, last_report), " +
                changedAt("$6", m_sql->dialect()) + " WHERE id = $1",
            parameters);
    }
    const std::string values = m_sql->dialect() == Dialect::Sqlite ? "$6" : "CAST($6 AS JSONB)";
    for (const auto& [key, newest] : m_newest) {
        const auto [vehicle, event, instance] = key;
        const Cell parameters[] = {vehicle,           event,        instance, newest.measuredMs,
                                   newest.receivedMs, newest.values};
        m_sql->query(
            "INSERT INTO latest (vehicle, event, instance, measured, received, vals) VALUES ($1, $2, $3, $4, "
            "$5, " +
                values +
                ") ON CONFLICT (vehicle, event, instance) DO UPDATE SET measured = excluded.measured, "
                "received = excluded.received, vals = excluded.vals WHERE excluded.measured >= "
                "latest.measured",
            parameters);
    }
}

/// `isWhole`: the payload came like that, and not inside an envelope. False for one that was kept before.
bool Store::keepUnusable(std::int64_t vehicle, std::int64_t receivedMs, const std::string& reason,
                         const std::string& payload, bool isWhole) {
    const Cell parameters[] = {vehicle, receivedMs, reason, Bytes{payload},
                               isWhole ? Cell{digestOf(payload)} : Cell{}};
    if (m_sql
            ->query(
                "INSERT INTO unusable (vehicle, received, reason, payload, digest) VALUES ($1, $2, $3, $4, "
                "$5) ON CONFLICT (vehicle, digest) DO NOTHING RETURNING id",
                parameters)
            .empty()) {
        return false;
    }
    Added& added = m_added[vehicle];
    ++added.unusable;
    added.receivedMs = std::max(added.receivedMs, receivedMs);
    return true;
}

std::int64_t Store::vehicleId(const std::string& prefix) {
    const std::string name = vehicleName(prefix);
    const auto known = m_vehicles.find(name);
    if (known != m_vehicles.end()) {
        return known->second;
    }
    // A row that is not changed is not locked for other instances.
    const Cell parameters[] = {name, prefix};
    auto rows = m_sql->query("SELECT id FROM vehicles WHERE name = $1 AND prefix = $2", parameters);
    if (rows.empty()) {
        rows = m_sql->query(
            "INSERT INTO vehicles (name, prefix) VALUES ($1, $2) "
            "ON CONFLICT (name) DO UPDATE SET prefix = excluded.prefix RETURNING id",
            parameters);
    }
    return m_vehicles[name] = integer(rows[0][0]);
}

std::int64_t Store::eventId(const Event& event) {
    std::int64_t& id = m_events[&event];
    if (id == 0) {
        const Cell parameters[] = {std::string(event.service), std::string(event.resource)};
        id = integer(
            m_sql->query("SELECT id FROM events WHERE service = $1 AND resource = $2", parameters)[0][0]);
    }
    return id;
}

bool Store::setPresence(std::span<Presence> all, const std::string& instance, std::int64_t nowMs) {
    const auto write = [&](Sql& sql) {
        // Rows are made in the order of put() and changed in that of addTotals(), so that no instances wait
        // for each other in a circle.
        std::map<std::string_view, Presence*> byPrefix;
        for (Presence& one : all) {
            byPrefix[one.prefix] = &one;
        }
        std::map<std::int64_t, Presence*> byId;
        for (const auto& [prefix, one] : byPrefix) {
            byId[vehicleId(one->prefix)] = one;
        }
        for (const auto& [id, one] : byId) {
            const Cell parameters[] = {id, std::int64_t{one->online}, one->catalog, nowMs};
            sql.query("UPDATE vehicles SET online = $2, catalog = $3, seen = $4, " +
                          changedAt("$4", sql.dialect()) + " WHERE id = $1",
                      parameters);
            one->isOurs = one->online && !instance.empty() && claim(sql, instance, vehicleName(one->prefix));
        }
    };
    for (int tries = 0; tries < kTries; ++tries) {
        if (transact(write)) {
            return true;
        }
        if (m_cause != DatabaseError::Cause::Conflict) {
            break;
        }
    }
    return false;
}

void Store::setHealth(const std::string& prefix, const kyo::Json::Value& health, std::int64_t nowMs) {
    transact([&](Sql& sql) {
        const std::int64_t vehicle = vehicleId(prefix);
        const kyo::Json::Value& waiting = vlmProd::member(health, "waitingEnvelopes");
        const Cell parameters[] = {
            vehicle, storableJson(vlmProd::compactText(health)), nowMs, lossesIn(health),
            waiting.isNumeric() ? static_cast<std::int64_t>(std::clamp(waiting.asDouble(), 0.0, kMostCounted))
                                : 0};
        const std::string value = sql.dialect() == Dialect::Sqlite ? "$2" : "CAST($2 AS JSONB)";
        sql.query("UPDATE vehicles SET health = " + value + ", health_at = $3, lost = $4, waiting = $5, " +
                      changedAt("$3", sql.dialect()) + " WHERE id = $1",
                  parameters);
        noteStates(sql, vehicle, vlmProd::member(health, "configurations"), nowMs);
    });
}

bool Store::transact(const std::function<void(Sql& sql)>& work) {
    std::string reason;
    return attempt(
        [&] {
            Transaction transaction(sql());
            work(*m_sql);
            transaction.commit();
        },
        reason);
}

Deleted Store::deleteBefore(std::int64_t receivedMs) {
    Deleted deleted;
    std::string reason;
    const auto step = [&] {
        deleted = {};
        if (sql().dropSamples(receivedMs)) {
            deleted.isMore = true;
            return;
        }
        Transaction transaction(*m_sql);
        if (m_sql->dialect() == Dialect::Postgres) {
            m_sql->script("SELECT pg_advisory_xact_lock(8644)");  // several instances may do this at once
        }
        deleted.isMore = deleteReports(receivedMs, deleted) || deleteUnusable(receivedMs);
        transaction.commit();
        m_sql->tidy();
    };
    if (!attempt(step, reason)) {
        throw DatabaseError(reason, m_cause);
    }
    return deleted;
}

/// Of the oldest ones before `receivedMs`, a step. False when there are none.
bool Store::deleteReports(std::int64_t receivedMs, Deleted& deleted) {
    const Cell upTo[] = {receivedMs, kReportsPerStep};
    const auto reports = m_sql->query(
        "SELECT received, samples FROM reports WHERE received < $1 ORDER BY received LIMIT $2", upTo);
    if (reports.empty()) {
        return false;
    }
    std::size_t last = 0;
    for (std::int64_t samples = integer(reports[0][1]); last + 1 < reports.size(); ++last) {
        samples += integer(reports[last + 1][1]);
        if (samples > kSamplesPerStep) {
            break;
        }
    }
    const Cell step[] = {reports[last][0]};
    // One row after the other, in the order of addTotals().
    for (const Row& row : m_sql->query("SELECT vehicle, COUNT(*), SUM(samples) FROM reports WHERE received "
                                       "<= $1 GROUP BY vehicle ORDER BY vehicle",
                                       step)) {
        const Cell parameters[] = {row[0], integer(row[1]), integer(row[2])};
        m_sql->query("UPDATE vehicles SET reports = reports - $2, samples = samples - $3 WHERE id = $1",
                     parameters);
        const Cell old[] = {row[0], receivedMs};
        m_sql->query("DELETE FROM latest WHERE vehicle = $1 AND received < $2", old);
        deleted.reports += integer(row[1]);
        deleted.samples += integer(row[2]);
    }
    m_sql->query("DELETE FROM samples WHERE received <= $1", step);
    m_sql->query("DELETE FROM reports WHERE received <= $1", step);
    return true;
}

bool Store::deleteUnusable(std::int64_t receivedMs) {
    const Cell upTo[] = {receivedMs, kReportsPerStep};
    std::map<std::int64_t, std::int64_t> counts;
    for (const Row& row : m_sql->query("DELETE FROM unusable WHERE id IN (SELECT id FROM unusable WHERE "
                                       "received < $1 ORDER BY received LIMIT $2) RETURNING vehicle",
                                       upTo)) {
        ++counts[integer(row[0])];
    }
    for (const auto& [vehicle, count] : counts) {
        const Cell parameters[] = {vehicle, count};
        m_sql->query("UPDATE vehicles SET unusable = unusable - $2 WHERE id = $1", parameters);
    }
    return !counts.empty();
}

}  // namespace vlmBackend::store
