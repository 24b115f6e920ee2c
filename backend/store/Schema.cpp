#include "backend/store/Schema.h"

#include <algorithm>
#include <array>
#include <functional>

#include "backend/store/Events.h"

namespace vlmBackend::store {

namespace {

/// One entry per version, never changed after a release. {id}, {bytes} and {json} are types; what stands
/// between {sqlite: or {postgres: and its brace is for one dialect. Times are in milliseconds since 1970,
/// UTC.
constexpr std::array kMigrations{
    R"(CREATE TABLE vehicles (
         id {id}, name TEXT NOT NULL UNIQUE, prefix TEXT NOT NULL, online INTEGER NOT NULL DEFAULT 0,
         catalog TEXT NOT NULL DEFAULT '', seen BIGINT NOT NULL DEFAULT 0, health {json}, health_at BIGINT);
       CREATE TABLE events (
         id {id}, service TEXT NOT NULL, resource TEXT NOT NULL, UNIQUE (service, resource));
       CREATE TABLE reports (
         id {id}, message_id TEXT NOT NULL UNIQUE, vehicle BIGINT NOT NULL REFERENCES vehicles (id),
         application TEXT NOT NULL, name TEXT NOT NULL, sequence BIGINT NOT NULL, catalog TEXT NOT NULL,
         received BIGINT NOT NULL, measured_from BIGINT NOT NULL, measured_to BIGINT NOT NULL,
         samples BIGINT NOT NULL, spool_number BIGINT, wire_bytes BIGINT NOT NULL, envelope {bytes} NOT NULL);
       CREATE INDEX reports_by_time ON reports (vehicle, measured_to);
       CREATE INDEX reports_by_arrival ON reports (received);
       CREATE TABLE samples (
         report BIGINT NOT NULL, vehicle BIGINT NOT NULL, event BIGINT NOT NULL, instance BIGINT NOT NULL,
         measured BIGINT NOT NULL, received BIGINT NOT NULL, vals {json} NOT NULL)
         {postgres:PARTITION BY RANGE (received)};
       CREATE INDEX samples_by_time ON samples (vehicle, event, measured);
       {sqlite:CREATE INDEX samples_by_arrival ON samples (received);}
       CREATE TABLE unusable (
         id {id}, vehicle BIGINT NOT NULL REFERENCES vehicles (id), received BIGINT NOT NULL,
         reason TEXT NOT NULL, payload {bytes} NOT NULL))",
    // What pages ask all the time is kept up to date: the newest sample of each event and instance, and a
    // vehicle's totals. With the instance in the index, counting the samples of each needs no table.
    R"(DROP INDEX samples_by_time;
       CREATE INDEX samples_by_time ON samples (vehicle, event, measured, instance);
       DROP INDEX reports_by_time;
       CREATE INDEX reports_by_time ON reports (vehicle, measured_to, measured_from, received);
       CREATE INDEX unusable_by_vehicle ON unusable (vehicle, id);
       CREATE TABLE latest (
         vehicle BIGINT NOT NULL, event BIGINT NOT NULL, instance BIGINT NOT NULL, measured BIGINT NOT NULL,
         received BIGINT NOT NULL, vals {json} NOT NULL, PRIMARY KEY (vehicle, event, instance));
       INSERT INTO latest {sqlite:
         SELECT vehicle, event, instance, MAX(measured), received, vals FROM samples
         GROUP BY vehicle, event, instance}{postgres:
         SELECT DISTINCT ON (vehicle, event, instance) vehicle, event, instance, measured, received, vals
         FROM samples ORDER BY vehicle, event, instance, measured DESC};
       ALTER TABLE vehicles ADD COLUMN reports BIGINT NOT NULL DEFAULT 0;
       ALTER TABLE vehicles ADD COLUMN samples BIGINT NOT NULL DEFAULT 0;
       ALTER TABLE vehicles ADD COLUMN unusable BIGINT NOT NULL DEFAULT 0;
       ALTER TABLE vehicles ADD COLUMN last_report BIGINT;
       UPDATE vehicles SET
         reports = (SELECT COUNT(*) FROM reports r WHERE r.vehicle = vehicles.id),
         samples = (SELECT COUNT(*) FROM samples s WHERE s.vehicle = vehicles.id),
         unusable = (SELECT COUNT(*) FROM unusable u WHERE u.vehicle = vehicles.id),
         last_report = (SELECT MAX(id) FROM reports r WHERE r.vehicle = vehicles.id))",
    // A vehicle has at most one own assignment, a group one; deliveries says what became of the configuration
    // that a vehicle was sent last.
    R"(ALTER TABLE vehicles ADD COLUMN grp TEXT NOT NULL DEFAULT '';
       CREATE TABLE configurations (
         id {id}, name TEXT NOT NULL, version BIGINT NOT NULL, record_id TEXT NOT NULL UNIQUE,
         content TEXT NOT NULL, created BIGINT NOT NULL, author TEXT NOT NULL, UNIQUE (name, version));
       CREATE TABLE assignments (
         vehicle BIGINT UNIQUE REFERENCES vehicles (id), grp TEXT UNIQUE,
         configuration BIGINT NOT NULL REFERENCES configurations (id), assigned BIGINT NOT NULL,
         author TEXT NOT NULL, CHECK ((vehicle IS NULL) <> (grp IS NULL)));
       CREATE TABLE deliveries (
         vehicle BIGINT PRIMARY KEY REFERENCES vehicles (id),
         configuration BIGINT NOT NULL REFERENCES configurations (id), sent BIGINT NOT NULL,
         state TEXT NOT NULL, state_at BIGINT NOT NULL, reason TEXT NOT NULL);
       CREATE VIEW desired AS
         SELECT v.id AS vehicle, COALESCE(own.configuration, shared.configuration) AS configuration
         FROM vehicles v LEFT JOIN assignments own ON own.vehicle = v.id
         LEFT JOIN assignments shared ON shared.grp = v.grp
         WHERE COALESCE(own.configuration, shared.configuration) IS NOT NULL;
       INSERT INTO settings (name, value) VALUES ('configuration_changes', '0'), ('delivery_changes', '0'))",
    // Which of several instances serves a vehicle.
    R"(CREATE TABLE instances (name TEXT PRIMARY KEY, alive_until BIGINT NOT NULL);
       ALTER TABLE vehicles ADD COLUMN owner TEXT NOT NULL DEFAULT '')",
    // What has changed lately is found, and a list of vehicles filtered, without reading all of them. The
    // next health message of a vehicle fills in its losses.
    R"(ALTER TABLE vehicles ADD COLUMN changed BIGINT NOT NULL DEFAULT 0;
       ALTER TABLE vehicles ADD COLUMN lost BIGINT NOT NULL DEFAULT 0;
       ALTER TABLE vehicles ADD COLUMN waiting BIGINT NOT NULL DEFAULT 0;
       CREATE INDEX vehicles_by_change ON vehicles (changed))",
    // A messageId is unique among the envelopes of one vehicle; two vehicles may derive the same one. What
    // was kept aside whole is known by its digest, which samples do not need: their envelope is stored once.
    // SQLite changes no constraint, and without legacy_alter_table it refuses the name because of a site's
    // own views.
    R"({sqlite:CREATE TABLE new_reports (
         id {id}, message_id TEXT NOT NULL, vehicle BIGINT NOT NULL REFERENCES vehicles (id),
         application TEXT NOT NULL, name TEXT NOT NULL, sequence BIGINT NOT NULL, catalog TEXT NOT NULL,
         received BIGINT NOT NULL, measured_from BIGINT NOT NULL, measured_to BIGINT NOT NULL,
         samples BIGINT NOT NULL, spool_number BIGINT, wire_bytes BIGINT NOT NULL, envelope {bytes} NOT NULL,
         UNIQUE (vehicle, message_id));
       INSERT INTO new_reports SELECT * FROM reports;
       DROP TABLE reports;
       PRAGMA legacy_alter_table = ON;
       ALTER TABLE new_reports RENAME TO reports;
       PRAGMA legacy_alter_table = OFF;
       CREATE INDEX reports_by_time ON reports (vehicle, measured_to, measured_from, received);
       CREATE INDEX reports_by_arrival ON reports (received)}{postgres:
       ALTER TABLE reports DROP CONSTRAINT reports_message_id_key, ADD UNIQUE (vehicle, message_id)};
       ALTER TABLE unusable ADD COLUMN digest {bytes};
       CREATE UNIQUE INDEX unusable_once ON unusable (vehicle, digest);
       CREATE INDEX unusable_by_arrival ON unusable (received))",
    // A vehicle's name is the last level of its prefix. Where two would get the same name, both keep theirs.
    R"(UPDATE vehicles SET name = SUBSTR(prefix, LENGTH(RTRIM(prefix, REPLACE(prefix, '/', ''))) + 1)
       WHERE name LIKE '%/%' AND prefix NOT LIKE '%/' AND prefix NOT LIKE '%/data/%' AND NOT EXISTS (
         SELECT 1 FROM vehicles o WHERE o.id <> vehicles.id AND
         SUBSTR(o.prefix, LENGTH(RTRIM(o.prefix, REPLACE(o.prefix, '/', ''))) + 1) =
         SUBSTR(vehicles.prefix, LENGTH(RTRIM(vehicles.prefix, REPLACE(vehicles.prefix, '/', ''))) + 1)))",
};

void replaceAll(std::string& text, std::string_view what, std::string_view by) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
}

/// Keeps or removes what one dialect alone understands.
void choose(std::string& text, std::string_view mark, bool keep) {
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
        const auto end = text.find('}', at);
        const std::string inner = text.substr(at + mark.size(), end - at - mark.size());
        text.replace(at, end + 1 - at, keep ? inner : "");
    }
}

std::string inDialect(std::string text, Dialect dialect) {
    const bool sqlite = dialect == Dialect::Sqlite;
    replaceAll(text, "{id}",
               sqlite ? "INTEGER PRIMARY KEY" : "BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY");
    replaceAll(text, "{bytes}", sqlite ? "BLOB" : "BYTEA");
    replaceAll(text, "{json}", sqlite ? "TEXT" : "JSONB");
    choose(text, "{sqlite:", sqlite);
    choose(text, "{postgres:", !sqlite);
    return text;
}

std::string inQuotes(std::string_view text, char mark = '\'') {
    std::string out(1, mark);
    for (const char c : text) {
        out.append(c == mark ? 2 : 1, c);
    }
    return out += mark;
}

std::string meaningOf(const EventField& field) {
    return field.unit.empty() ? std::string(field.meaning)
                              : std::string(field.unit) + ": " + std::string(field.meaning);
}

std::string timeOf(std::string_view column, Dialect dialect) {
    return dialect == Dialect::Sqlite
               ? "strftime('%Y-%m-%dT%H:%M:%fZ', " + std::string(column) + " / 1000.0, 'unixepoch')"
               : "to_timestamp(" + std::string(column) + " / 1000.0)";
}

std::string viewStatement(const Event& event, Dialect dialect) {
    const std::string name = inQuotes(event.view, '"');
    std::string text = "CREATE VIEW " + name + " AS -- " + std::string(event.summary) +
                       "\nSELECT v.name AS vehicle, " + timeOf("s.measured", dialect) +
                       " AS time, s.measured AS time_ms, " + timeOf("s.received", dialect) +
                       " AS received, s.received AS received_ms, s.instance AS instance";
    std::string comments;
    for (const EventField& field : event.fields) {
        const std::string column = inQuotes(field.column, '"');
        text += "\n  , " + valueOf(field, dialect) + " AS " + column + " -- " + meaningOf(field);
        comments += "; COMMENT ON COLUMN " + name + "." + column + " IS " + inQuotes(meaningOf(field));
    }
    text +=
        "\nFROM samples s JOIN vehicles v ON v.id = s.vehicle WHERE s.event = (SELECT id FROM events "
        "WHERE service = " +
        inQuotes(event.service) + " AND resource = " + inQuotes(event.resource) + ")";
    if (dialect == Dialect::Postgres) {
        text += "; COMMENT ON VIEW " + name + " IS " + inQuotes(event.summary) + comments;
    }
    return text;
}

std::string setting(Sql& sql, const std::string& name) {
    const Cell parameters[] = {name};
    const auto rows = sql.query("SELECT value FROM settings WHERE name = $1", parameters);
    return rows.empty() ? "" : text(rows[0][0]);
}

void set(Sql& sql, const std::string& name, const std::string& value) {
    const Cell parameters[] = {name, value};
    sql.query(
        "INSERT INTO settings (name, value) VALUES ($1, $2) "
        "ON CONFLICT (name) DO UPDATE SET value = excluded.value",
        parameters);
}

/// The views follow the descriptions of this program; what a site made on top of them goes with them.
void writeViews(Sql& sql) {
    const auto statements = viewStatements(sql.dialect());
    std::string all;
    for (const std::string& statement : statements) {
        all += statement + ";\n";
    }
    const std::string digest = std::to_string(std::hash<std::string>{}(all));
    if (setting(sql, "views") == digest) {
        return;
    }
    const std::string existing = setting(sql, "view_names");
    for (std::size_t at = 0; at < existing.size();) {
        const auto end = std::min(existing.find(' ', at), existing.size());
        sql.script("DROP VIEW IF EXISTS " + inQuotes(existing.substr(at, end - at), '"') +
                   (sql.dialect() == Dialect::Postgres ? " CASCADE" : ""));
        at = end + 1;
    }
    std::string names;
    for (const Event& event : events()) {
        names += (names.empty() ? "" : " ") + std::string(event.view);
        const Cell parameters[] = {std::string(event.service), std::string(event.resource)};
        sql.query("INSERT INTO events (service, resource) VALUES ($1, $2) ON CONFLICT DO NOTHING",
                  parameters);
    }
    sql.script(all);
    set(sql, "view_names", names);
    set(sql, "views", digest);
}

}  // namespace

std::string valueOf(const EventField& field, Dialect dialect) {
    if (dialect == Dialect::Sqlite) {
        return "json_extract(s.vals, '$." + std::string(field.name) + "')";
    }
    std::string member = "(s.vals ->> " + inQuotes(field.name) + ")";
    switch (field.kind) {
        case Kind::Boolean:
            return member + "::boolean";
        case Kind::Integer:
            return member + "::bigint";
        case Kind::Unsigned64:
            return member + "::numeric";
        case Kind::Real:
            return member + "::double precision";
        case Kind::Text:
            break;
    }
    return member;
}

int newestVersion() {
    return static_cast<int>(kMigrations.size());
}

std::vector<std::string> viewStatements(Dialect dialect) {
    std::vector<std::string> statements;
    for (const Event& event : events()) {
        statements.push_back(viewStatement(event, dialect));
    }
    return statements;
}

void migrate(Sql& sql, int newest) {
    Transaction transaction(sql);
    if (sql.dialect() == Dialect::Postgres) {
        sql.script("SELECT pg_advisory_xact_lock(8642)");  // several instances may start at once
    }
    sql.script("CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, value TEXT NOT NULL)");
    const std::string found = setting(sql, "version");
    const int version = found.empty() ? 0 : std::stoi(found);
    if (version > newestVersion()) {
        throw DatabaseError("the database has version " + found + ", and this program knows version " +
                            std::to_string(newestVersion()) + " and older ones");
    }
    for (int next = version; next < newest; ++next) {
        sql.script(inDialect(kMigrations[static_cast<std::size_t>(next)], sql.dialect()));
    }
    set(sql, "version", std::to_string(newest));
    writeViews(sql);
    transaction.commit();
}

}  // namespace vlmBackend::store
