#include "backend/store/Configurations.h"

#include <botan/hash.h>
#include <botan/hex.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "json/JsonFields.h"

namespace vlmBackend::store {

using vlmProd::member;
using vlmProd::textOf;

namespace {

using Cause = ConfigurationError::Cause;

constexpr std::size_t kMostName = 64;      // bytes
constexpr std::size_t kMostReason = 1000;  // bytes

void checkName(const std::string& name, const char* what) {
    if (name.size() > kMostName ||
        std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
        throw ConfigurationError(Cause::Unfit,
                                 std::string(what) + ": at most 64 printable bytes are expected");
    }
}

/// The row's lock also makes several instances change one after the other.
void countChange(Sql& sql, const char* name) {
    const Cell parameters[] = {std::string(name)};
    sql.query("UPDATE settings SET value = CAST(CAST(value AS BIGINT) + 1 AS TEXT) WHERE name = $1",
              parameters);
}

std::int64_t vehicleId(Sql& sql, const std::string& name) {
    const Cell parameters[] = {name};
    const auto rows = sql.query("SELECT id FROM vehicles WHERE name = $1", parameters);
    if (rows.empty()) {
        throw ConfigurationError(Cause::Unknown, "no vehicle is named \"" + name + "\"");
    }
    return integer(rows[0][0]);
}

std::string recordId(const std::string& name, std::int64_t version, const std::string& text) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    return name + '-' + std::to_string(version) + '-' + Botan::hex_encode(hash->final()).substr(0, 8);
}

Configuration configurationOf(const Row& row) {
    return {integer(row[0]),
            text(row[1]),
            integer(row[2]),
            text(row[3]),
            integer(row[4]),
            text(row[5]),
            row.size() > 6 ? text(row[6]) : ""};
}

constexpr const char* kColumns = "SELECT id, name, version, record_id, created, author";

std::optional<Due> dueOf(Sql& sql, const std::string& vehicle, const char* condition) {
    const Cell parameters[] = {vehicle};
    const auto rows = sql.query(
        std::string(
            "SELECT c.id, c.name, c.version, c.record_id, c.created, c.author, c.content, v.prefix, v.id "
            "FROM vehicles v JOIN desired d ON d.vehicle = v.id "
            "JOIN configurations c ON c.id = d.configuration "
            "LEFT JOIN deliveries s ON s.vehicle = v.id WHERE v.name = $1 ") +
            condition,
        parameters);
    if (rows.empty()) {
        return std::nullopt;
    }
    return Due{text(rows[0][7]), integer(rows[0][8]),
               configurationOf(Row(rows[0].begin(), rows[0].begin() + 7))};
}

}  // namespace

Configuration addConfiguration(Sql& sql, const std::string& name, const std::string& text,
                               const std::string& user, std::int64_t nowMs) {
    if (name.empty()) {
        throw ConfigurationError(Cause::Unfit, "name: is missing");
    }
    checkName(name, "name");
    Transaction transaction(sql);
    countChange(sql, "configuration_changes");
    const Cell named[] = {name};
    const std::int64_t version =
        1 + integer(sql.query("SELECT COALESCE(MAX(version), 0) FROM configurations WHERE name = $1",
                              named)[0][0]);
    Configuration made{0, name, version, recordId(name, version, text), nowMs, user, text};
    const Cell parameters[] = {name, version, made.recordId, text, nowMs, user};
    made.id =
        integer(sql.query("INSERT INTO configurations (name, version, record_id, content, created, author) "
                          "VALUES ($1, $2, $3, $4, $5, $6) RETURNING id",
                          parameters)[0][0]);
    transaction.commit();
    return made;
}

std::vector<Configuration> configurations(Sql& sql) {
    std::vector<Configuration> all;
    for (const Row& row : sql.query(std::string(kColumns) + " FROM configurations ORDER BY id DESC")) {
        all.push_back(configurationOf(row));
    }
    return all;
}

std::optional<Configuration> configuration(Sql& sql, std::int64_t id) {
    const Cell parameters[] = {id};
    const auto rows =
        sql.query(std::string(kColumns) + ", content FROM configurations WHERE id = $1", parameters);
    return rows.empty() ? std::nullopt : std::optional(configurationOf(rows[0]));
}

void assign(Sql& sql, const Assignment& assignment, const std::string& user, std::int64_t nowMs) {
    const bool toGroup = !assignment.group.empty();
    if (toGroup == !assignment.vehicle.empty()) {
        throw ConfigurationError(Cause::Unfit, "either vehicle or group is to be named");
    }
    checkName(assignment.group, "group");
    Transaction transaction(sql);
    countChange(sql, "configuration_changes");
    const std::string column = toGroup ? "grp" : "vehicle";
    const Cell whom = toGroup ? Cell{assignment.group} : Cell{vehicleId(sql, assignment.vehicle)};
    if (assignment.configuration) {
        const Cell id[] = {*assignment.configuration};
        if (sql.query("SELECT 1 FROM configurations WHERE id = $1", id).empty()) {
            throw ConfigurationError(
                Cause::Unknown, "there is no configuration " + std::to_string(*assignment.configuration));
        }
        const Cell parameters[] = {whom, *assignment.configuration, nowMs, user};
        sql.query("INSERT INTO assignments (" + column +
                      ", configuration, assigned, author) VALUES ($1, $2, $3, $4) ON CONFLICT (" + column +
                      ") DO UPDATE SET configuration = excluded.configuration, assigned = excluded.assigned, "
                      "author = excluded.author",
                  parameters);
    } else {
        const Cell parameters[] = {whom};
        sql.query("DELETE FROM assignments WHERE " + column + " = $1", parameters);
    }
    transaction.commit();
}

std::vector<Assignment> assignments(Sql& sql) {
    std::vector<Assignment> all;
    for (const Row& row :
         sql.query("SELECT v.name, a.grp, a.configuration FROM assignments a LEFT JOIN vehicles v "
                   "ON v.id = a.vehicle ORDER BY COALESCE(a.grp, ''), v.name")) {
        all.push_back({text(row[0]), text(row[1]), integer(row[2])});
    }
    return all;
}

void setGroup(Sql& sql, const std::string& vehicle, const std::string& group) {
    checkName(group, "group");
    Transaction transaction(sql);
    countChange(sql, "configuration_changes");
    const Cell parameters[] = {vehicleId(sql, vehicle), group};
    sql.query("UPDATE vehicles SET grp = $2 WHERE id = $1", parameters);
    transaction.commit();
}

std::optional<Due> desiredOf(Sql& sql, const std::string& vehicle) {
    return dueOf(sql, vehicle, "");
}

std::optional<Due> openOf(Sql& sql, const std::string& vehicle) {
    return dueOf(sql, vehicle, "AND (s.configuration IS DISTINCT FROM d.configuration OR s.state = 'sent')");
}

std::vector<Due> unsent(Sql& sql) {
    std::vector<Due> all;
    for (const Row& row : sql.query(
             "SELECT v.prefix, v.id, d.configuration FROM desired d JOIN vehicles v ON v.id = d.vehicle "
             "LEFT JOIN deliveries s ON s.vehicle = d.vehicle "
             "WHERE v.online = 1 AND s.configuration IS DISTINCT FROM d.configuration ORDER BY v.id")) {
        all.push_back({text(row[0]), integer(row[1]), {integer(row[2]), {}, 0, {}, 0, {}, {}}});
    }
    return all;
}

void noteSent(Sql& sql, const Due& due, std::int64_t nowMs) {
    const Cell parameters[] = {due.vehicle, due.configuration.id, nowMs};
    sql.query(
        "INSERT INTO deliveries (vehicle, configuration, sent, state, state_at, reason) "
        "VALUES ($1, $2, $3, 'sent', $3, '') ON CONFLICT (vehicle) DO UPDATE SET configuration = "
        "excluded.configuration, sent = excluded.sent, state = 'sent', state_at = excluded.sent, reason = ''",
        parameters);
    countChange(sql, "delivery_changes");
}

void noteStates(Sql& sql, std::int64_t vehicle, const kyo::Json::Value& states, std::int64_t nowMs) {
    const Cell parameters[] = {vehicle};
    const auto rows = sql.query(
        "SELECT c.record_id, s.state, s.reason FROM deliveries s JOIN configurations c ON c.id = "
        "s.configuration "
        "WHERE s.vehicle = $1",
        parameters);
    if (rows.empty() || !states.isArray()) {
        return;
    }
    for (const auto& one : states) {
        const std::string state = textOf(member(one, "state"));
        const std::string reason = textOf(member(one, "reason")).substr(0, kMostReason);
        if (textOf(member(one, "recordId")) != text(rows[0][0]) ||
            (state != "applied" && state != "refused") ||
            (state == text(rows[0][1]) && reason == text(rows[0][2]))) {
            continue;
        }
        const Cell changed[] = {vehicle, state, nowMs, reason};
        sql.query("UPDATE deliveries SET state = $2, state_at = $3, reason = $4 WHERE vehicle = $1", changed);
        countChange(sql, "delivery_changes");
        return;
    }
}

ChangeCounts changeCounts(Sql& sql) {
    ChangeCounts out;
    for (const Row& row : sql.query("SELECT name, CAST(value AS BIGINT) FROM settings WHERE name IN "
                                    "('configuration_changes', 'delivery_changes')")) {
        (text(row[0]) == "delivery_changes" ? out.deliveries : out.desired) = integer(row[1]);
    }
    return out;
}

}  // namespace vlmBackend::store
