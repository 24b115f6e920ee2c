#include "backend/web/Queries.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "backend/store/Samples.h"
#include "backend/web/Router.h"

namespace vlmBackend::web {

using kyo::Json::Value;
using store::Cell;
using store::Dialect;
using store::eventId;
using store::integer;
using store::real;
using store::Row;
using store::Sql;
using store::text;

namespace {

/// Beyond it, readers of JSON lose digits.
constexpr std::int64_t kExact = std::int64_t{1} << 53;
constexpr std::int64_t kMostUnusable = 100;
constexpr std::int64_t kMostListed = 1000;  // groups, and configurations that vehicles are to have

Value number(std::int64_t value) {
    return value >= -kExact && value <= kExact ? Value(value) : Value(std::to_string(value));
}

Value numberOrNull(const Cell& cell) {
    return std::holds_alternative<std::monostate>(cell) ? Value() : number(integer(cell));
}

const char* nameOf(Kind kind) {
    constexpr std::array names{"boolean", "integer", "unsigned64", "real", "text"};
    return names.at(static_cast<std::size_t>(kind));
}

Value parsed(const std::string& text) {
    Value content;
    kyo::Json::Reader().parse(text, content, false);
    return content;
}

/// A sample's members by column.
Value valuesOf(const Event& event, const std::string& stored) {
    const Value members = parsed(stored);
    Value out(kyo::Json::objectValue);
    for (const EventField& field : event.fields) {
        const std::string name(field.name);
        if (members.isObject() && members.isMember(name)) {
            const Value& value = members[name];
            const bool whole = field.kind == Kind::Integer || field.kind == Kind::Unsigned64;
            const bool exact =
                !whole || (value.isInt64() && value.asInt64() <= kExact && value.asInt64() >= -kExact);
            out[std::string(field.column)] = exact ? value : Value(value.asString());
        }
    }
    return out;
}

/// A row of instance, measured, received, vals from column `at` on.
Value sampleOf(const Event& event, const Row& row, std::size_t at) {
    Value out;
    out["service"] = std::string(event.service);
    out["resource"] = std::string(event.resource);
    out["view"] = std::string(event.view);
    out["instance"] = number(integer(row[at]));
    out["measuredMs"] = number(integer(row[at + 1]));
    out["receivedMs"] = number(integer(row[at + 2]));
    out["values"] = valuesOf(event, text(row[at + 3]));
    return out;
}

/// The statement's part and parameters that choose samples. PostgreSQL looks only into the partitions that
/// hold what was received with these times.
struct Choice {
    std::string where = "vehicle = $1 AND event = $2 AND measured >= $3 AND measured < $4";
    std::vector<Cell> parameters;
    std::int64_t fromMs = 0;
    std::int64_t toMs = 0;
};

Choice choose(Sql& sql, const std::string& vehicle, const Event& event, const Range& range) {
    Choice out;
    const Cell of[] = {vehicleId(sql, vehicle), eventId(sql, event)};
    const auto end = [&](const char* which) {
        return sql.query(
            std::string("SELECT ") + which + "(measured) FROM samples WHERE vehicle = $1 AND event = $2",
            of)[0][0];
    };
    // A request without limits needs two seeks in the index, one without data gets an empty range.
    out.fromMs = range.fromMs ? *range.fromMs : integer(end("MIN"));
    out.fromMs = std::clamp(out.fromMs, -kExact, kExact);
    if (range.toMs) {
        out.toMs = *range.toMs;
    } else if (const Cell newest = end("MAX"); !std::holds_alternative<std::monostate>(newest)) {
        out.toMs = std::min(integer(newest), kExact) + 1;
    }
    out.toMs = std::clamp(out.toMs, out.fromMs, kExact);
    out.parameters = {of[0], of[1], out.fromMs, out.toMs};
    if (sql.dialect() == Dialect::Postgres) {
        const Cell within[] = {of[0], out.fromMs, out.toMs};
        const auto received = sql.query(
            // OFFSET keeps the planner from reading the reports of all vehicles in the order of arrival.
            "SELECT MIN(received), MAX(received) FROM (SELECT received FROM reports WHERE vehicle = $1 AND "
            "measured_to >= $2 AND measured_from < $3 OFFSET 0) AS those",
            within);
        out.where += " AND received BETWEEN " + std::to_string(integer(received[0][0])) + " AND " +
                     std::to_string(integer(received[0][1]));
    }
    return out;
}

/// The requested instance or the one with the most samples, and how many samples it has.
std::pair<std::int64_t, std::int64_t> chooseInstance(Sql& sql, const Choice& choice, const Range& range) {
    auto parameters = choice.parameters;
    std::string only;
    if (range.instance) {
        parameters.emplace_back(*range.instance);
        only = " AND instance = $5";
    }
    const auto rows = sql.query("SELECT instance, COUNT(*) FROM samples WHERE " + choice.where + only +
                                    " GROUP BY instance ORDER BY 2 DESC, 1 LIMIT 1",
                                parameters);
    return rows.empty() ? std::pair{range.instance.value_or(0), std::int64_t{0}}
                        : std::pair{integer(rows[0][0]), integer(rows[0][1])};
}

/// A member as a number; null for another value.
std::string numeric(const EventField& field, Dialect dialect) {
    const std::string name(field.name);
    if (dialect == Dialect::Sqlite) {
        return "json_extract(vals, '$." + name + "')";
    }
    const std::string member = "(vals ->> '" + name + "')";
    return field.kind == Kind::Boolean ? member + "::boolean::integer" : member + "::double precision";
}

constexpr const char* kVehicles =
    "SELECT v.id, v.name, v.prefix, v.online, v.catalog, v.seen, v.reports, v.samples, v.unusable, v.health, "
    "v.health_at, "
    "(SELECT r.measured_from FROM reports r WHERE r.vehicle = v.id ORDER BY r.measured_to LIMIT 1), "
    "(SELECT r.measured_to FROM reports r WHERE r.vehicle = v.id ORDER BY r.measured_to DESC LIMIT 1), "
    "l.name, l.sequence, l.received, l.measured_to, l.samples, "
    "v.grp, d.configuration, s.configuration, s.sent, s.state, s.state_at, s.reason, v.lost "
    "FROM vehicles v LEFT JOIN reports l ON l.id = v.last_report LEFT JOIN desired d ON d.vehicle = v.id "
    "LEFT JOIN deliveries s ON s.vehicle = v.id ";

Value vehicleOf(const Row& row) {
    Value out;
    out["name"] = text(row[1]);
    out["prefix"] = text(row[2]);
    out["online"] = integer(row[3]) != 0;
    out["catalog"] = text(row[4]);
    out["seenMs"] = number(integer(row[5]));
    out["group"] = text(row[18]);
    out["reports"] = number(integer(row[6]));
    out["samples"] = number(integer(row[7]));
    out["unusable"] = number(integer(row[8]));
    const Value health = parsed(text(row[9]));
    out["health"] = health.isObject() ? health : Value();
    out["healthMs"] = numberOrNull(row[10]);
    out["lost"] = number(integer(row[25]));
    const bool hasSamples = integer(row[7]) != 0;
    out["measuredFromMs"] = hasSamples ? numberOrNull(row[11]) : Value();
    out["measuredToMs"] = hasSamples ? numberOrNull(row[12]) : Value();
    Value& last = out["lastReport"];
    if (!std::holds_alternative<std::monostate>(row[15])) {
        last["name"] = text(row[13]);
        last["sequence"] = number(integer(row[14]));
        last["receivedMs"] = number(integer(row[15]));
        last["measuredToMs"] = number(integer(row[16]));
        last["samples"] = number(integer(row[17]));
    }
    Value& configuration = out["configuration"];
    const bool isDesired = !std::holds_alternative<std::monostate>(row[19]);
    const bool isSent = isDesired && row[19] == row[20];
    configuration["desired"] = numberOrNull(row[19]);
    configuration["sentMs"] = isSent ? numberOrNull(row[21]) : Value();
    configuration["state"] = isSent ? text(row[22]) : isDesired ? "waiting" : "none";
    configuration["stateMs"] = isSent ? numberOrNull(row[23]) : Value();
    configuration["reason"] = isSent ? text(row[24]) : "";
    return out;
}

}  // namespace

Value catalog() {
    Value out(kyo::Json::arrayValue);
    for (const Event& event : events()) {
        Value& one = out.append(Value());
        one["service"] = std::string(event.service);
        one["catalogService"] = std::string(event.catalogService);
        one["resource"] = std::string(event.resource);
        one["view"] = std::string(event.view);
        one["summary"] = std::string(event.summary);
        Value& indexes = one["indexes"] = Value(kyo::Json::arrayValue);
        for (const EventIndex& index : event.indexes) {
            Value& entry = indexes.append(Value());
            entry["value"] = Value(index.value);
            entry["name"] = std::string(index.name);
            entry["meaning"] = std::string(index.meaning);
        }
        Value& fields = one["fields"] = Value(kyo::Json::arrayValue);
        for (const EventField& field : event.fields) {
            Value& member = fields.append(Value());
            member["name"] = std::string(field.name);
            member["column"] = std::string(field.column);
            member["kind"] = nameOf(field.kind);
            member["unit"] = std::string(field.unit);
            member["meaning"] = std::string(field.meaning);
            Value& values = member["values"] = Value(kyo::Json::arrayValue);
            for (const NamedValue& named : field.values) {
                Value& entry = values.append(Value());
                entry["value"] = Value(named.value);
                entry["name"] = std::string(named.name);
            }
        }
    }
    return out;
}

Value vehicles(Sql& sql, const VehicleChoice& choice) {
    constexpr std::array<std::pair<std::string_view, const char*>, 6> kShown{{
        {"all", ""},
        {"online", " AND v.online = 1"},
        {"offline", " AND v.online = 0 AND v.seen > 0"},
        {"losses", " AND v.lost > 0"},
        {"waiting", " AND v.waiting > 0"},
        {"refused", " AND s.state = 'refused' AND s.configuration = d.configuration"},
    }};
    const auto* const shown =
        std::ranges::find(kShown, choice.show, &std::pair<std::string_view, const char*>::first);
    if (shown == kShown.end()) {
        throw Problem(400, "show: all, online, offline, losses, waiting or refused is expected");
    }
    const char* const find = sql.dialect() == Dialect::Sqlite ? "INSTR(" : "STRPOS(";
    const Cell parameters[] = {choice.after, choice.search, choice.limit};
    Value out(kyo::Json::arrayValue);
    sql.stream(std::string(kVehicles) + "WHERE v.name > $1 AND ($2 = '' OR " + find +
                   "LOWER(v.name), LOWER($2)) > 0 OR " + find + "LOWER(v.grp), LOWER($2)) > 0)" +
                   shown->second + " ORDER BY v.name LIMIT $3",
               parameters, [&out](const Row& row) {
                   out.append(vehicleOf(row));
                   return true;
               });
    return out;
}

Value fleet(Sql& sql) {
    const auto sums = sql.query(
        "SELECT COUNT(*), COALESCE(SUM(CASE WHEN seen > 0 THEN 1 ELSE 0 END), 0), COALESCE(SUM(online), 0), "
        "CAST(COALESCE(SUM(samples), 0) AS BIGINT), CAST(COALESCE(SUM(waiting), 0) AS BIGINT), "
        "COALESCE(SUM(CASE WHEN lost > 0 THEN 1 ELSE 0 END), 0) FROM vehicles");
    constexpr std::array kSums{"vehicles", "present", "online", "samples", "waitingEnvelopes", "withLosses"};
    Value out;
    for (std::size_t i = 0; i < kSums.size(); ++i) {
        out[kSums.at(i)] = number(integer(sums[0][i]));
    }
    out["refused"] = number(
        integer(sql.query("SELECT COUNT(*) FROM desired d JOIN deliveries s ON s.vehicle = d.vehicle AND "
                          "s.configuration = d.configuration WHERE s.state = 'refused'")[0][0]));
    const Cell most[] = {kMostListed};
    Value& groups = out["groups"] = Value(kyo::Json::arrayValue);
    for (const Row& row : sql.query(
             "SELECT grp, COUNT(*) FROM vehicles WHERE grp <> '' GROUP BY grp ORDER BY grp LIMIT $1", most)) {
        Value& group = groups.append(Value());
        group["name"] = text(row[0]);
        group["vehicles"] = number(integer(row[1]));
    }
    Value& configurations = out["configurations"] = Value(kyo::Json::arrayValue);
    for (const Row& row : sql.query("SELECT configuration, COUNT(*) FROM desired GROUP BY configuration "
                                    "ORDER BY configuration DESC LIMIT $1",
                                    most)) {
        Value& configuration = configurations.append(Value());
        configuration["id"] = number(integer(row[0]));
        configuration["vehicles"] = number(integer(row[1]));
    }
    return out;
}

Value vehicle(Sql& sql, const std::string& name) {
    const Cell parameter[] = {name};
    const auto rows = sql.query(std::string(kVehicles) + "WHERE v.name = $1", parameter);
    if (rows.empty()) {
        throw Problem(404, "no vehicle is named \"" + name + "\"");
    }
    return vehicleOf(rows[0]);
}

std::int64_t vehicleId(Sql& sql, const std::string& name) {
    const Cell parameter[] = {name};
    const auto rows = sql.query("SELECT id FROM vehicles WHERE name = $1", parameter);
    if (rows.empty()) {
        throw Problem(404, "no vehicle is named \"" + name + "\"");
    }
    return integer(rows[0][0]);
}

Value latest(Sql& sql, const std::string& vehicle) {
    const Cell parameter[] = {vehicleId(sql, vehicle)};
    Value out(kyo::Json::arrayValue);
    sql.stream(
        "SELECT e.service, e.resource, l.instance, l.measured, l.received, CAST(l.vals AS TEXT) FROM latest "
        "l JOIN "
        "events e ON e.id = l.event WHERE l.vehicle = $1 ORDER BY e.service, e.resource, l.instance",
        parameter, [&out](const Row& row) {
            // An event of an older version of the program may have left the catalog.
            if (const Event* const event = findEvent(text(row[0]), text(row[1]))) {
                out.append(sampleOf(*event, row, 2));
            }
            return true;
        });
    return out;
}

Value samples(Sql& sql, const std::string& vehicle, const Event& event, const Range& range,
              const std::string& after, std::int64_t limit) {
    Choice choice = choose(sql, vehicle, event, range);
    const std::string row = store::rowExpression(sql.dialect());
    std::string only;
    const auto parameter = [&choice](Cell cell) {
        choice.parameters.push_back(std::move(cell));
        return "$" + std::to_string(choice.parameters.size());
    };
    if (range.instance) {
        only += " AND instance = " + parameter(*range.instance);
    }
    if (!after.empty()) {
        const auto place = store::Place::read(after, sql.dialect());
        if (!place) {
            throw Problem(400, "after: \"" + after + "\" is no cursor of a sample");
        }
        // What is newer is not even looked at in the index.
        auto& end = std::get<std::int64_t>(choice.parameters[3]);
        end = std::min(end - 1, place->measuredMs) + 1;
        only += " AND (measured, instance, " + row + ") < (" + parameter(place->measuredMs) + ", " +
                parameter(place->instance) + ", " + parameter(place->row) + ")";
    }
    const std::string statement = "SELECT instance, measured, received, CAST(vals AS TEXT), " + row +
                                  " FROM samples s WHERE " + choice.where + only +
                                  " ORDER BY measured DESC, instance DESC, 5 DESC LIMIT " + parameter(limit);
    Value out(kyo::Json::arrayValue);
    sql.stream(statement, choice.parameters, [&](const Row& found) {
        Value sample = sampleOf(event, found, 0);
        sample["cursor"] = store::Place{integer(found[1]), integer(found[0]), found[4]}.text();
        out.append(std::move(sample));
        return true;
    });
    return out;
}

Value track(Sql& sql, const std::string& vehicle, const Range& range, std::int64_t points) {
    const Event& event = *findView("gnss_positions");
    Choice choice = choose(sql, vehicle, event, range);
    const auto [instance, count] = chooseInstance(sql, choice, range);
    Value out;
    out["instance"] = number(instance);
    out["samples"] = number(count);
    Value& times = out["timesMs"] = Value(kyo::Json::arrayValue);
    Value& latitudes = out["latitudes"] = Value(kyo::Json::arrayValue);
    Value& longitudes = out["longitudes"] = Value(kyo::Json::arrayValue);
    const std::string latitude = numeric(*event.field("latitude"), sql.dialect());
    const std::string longitude = numeric(*event.field("longitude"), sql.dialect());
    choice.parameters.emplace_back(instance);
    choice.parameters.emplace_back((count + points - 1) / points);
    const std::string where = choice.where + " AND instance = $5";
    // The index numbers the rows, and only the chosen ones are read.
    const std::string chosen = sql.dialect() == Dialect::Sqlite
                                   ? "SELECT measured, " + latitude + ", " + longitude +
                                         " FROM samples WHERE rowid IN (SELECT row FROM (SELECT rowid AS "
                                         "row, ROW_NUMBER() OVER (ORDER BY "
                                         "measured) - 1 AS number FROM samples WHERE " +
                                         where + ") WHERE number % $6 = 0) ORDER BY measured"
                                   : "SELECT measured, " + latitude + ", " + longitude +
                                         " FROM (SELECT measured, vals, ROW_NUMBER() OVER (ORDER BY "
                                         "measured) - 1 AS number FROM samples "
                                         "WHERE " +
                                         where + ") AS numbered WHERE number % $6 = 0 ORDER BY measured";
    if (count != 0) {
        sql.stream(chosen, choice.parameters, [&](const Row& row) {
            if (!std::holds_alternative<std::monostate>(row[1]) &&
                !std::holds_alternative<std::monostate>(row[2])) {
                times.append(number(integer(row[0])));
                latitudes.append(real(row[1]));
                longitudes.append(real(row[2]));
            }
            return true;
        });
    }
    return out;
}

std::string seriesStatement(const EventField& field, Dialect dialect, const std::string& where) {
    // With a limit, SQLite reads each value once; without, it would sort the samples' texts and read each
    // thrice.
    return "SELECT MIN(measured), MIN(value), MAX(value), COUNT(value) FROM (SELECT measured, " +
           numeric(field, dialect) + " AS value FROM samples WHERE " + where + " AND instance = $5" +
           (dialect == Dialect::Sqlite ? " LIMIT -1" : "") +
           ") AS chosen GROUP BY (measured - $3) / $6 HAVING COUNT(value) > 0 ORDER BY 1";
}

std::string seriesStatement(const EventField& field, Dialect dialect) {
    return seriesStatement(field, dialect, Choice{}.where);
}

Value series(Sql& sql, const std::string& vehicle, const Event& event, const EventField& field,
             const Range& range, std::int64_t bins) {
    if (field.kind == Kind::Text) {
        throw Problem(400, "column: \"" + std::string(event.view) + "." + std::string(field.column) +
                               "\" holds texts, of which there is no series");
    }
    Choice choice = choose(sql, vehicle, event, range);
    const auto [instance, count] = chooseInstance(sql, choice, range);
    Value out;
    out["column"] = std::string(event.view) + "." + std::string(field.column);
    out["unit"] = std::string(field.unit);
    out["meaning"] = std::string(field.meaning);
    out["instance"] = number(instance);
    out["fromMs"] = number(choice.fromMs);
    out["toMs"] = number(choice.toMs);
    Value& times = out["timesMs"] = Value(kyo::Json::arrayValue);
    Value& minimums = out["minimums"] = Value(kyo::Json::arrayValue);
    Value& maximums = out["maximums"] = Value(kyo::Json::arrayValue);
    std::int64_t total = 0;
    choice.parameters.emplace_back(instance);
    choice.parameters.emplace_back(
        std::max<std::int64_t>(1, (choice.toMs - choice.fromMs + bins - 1) / bins));
    if (count != 0) {
        sql.stream(seriesStatement(field, sql.dialect(), choice.where), choice.parameters,
                   [&](const Row& row) {
                       times.append(number(integer(row[0])));
                       minimums.append(real(row[1]));
                       maximums.append(real(row[2]));
                       total += integer(row[3]);
                       return true;
                   });
    }
    out["samples"] = number(total);
    return out;
}

Value unusable(Sql& sql, const std::string& vehicle) {
    std::vector<Cell> parameters{kMostUnusable};
    std::string where;
    if (!vehicle.empty()) {
        parameters.emplace_back(vehicleId(sql, vehicle));
        where = "WHERE u.vehicle = $2 ";
    }
    Value out(kyo::Json::arrayValue);
    sql.stream(
        "SELECT u.id, v.name, u.received, u.reason, LENGTH(u.payload) FROM unusable u JOIN vehicles v ON "
        "v.id = "
        "u.vehicle " +
            where + "ORDER BY u.id DESC LIMIT $1",
        parameters, [&out](const Row& row) {
            Value& one = out.append(Value());
            one["id"] = number(integer(row[0]));
            one["vehicle"] = text(row[1]);
            one["receivedMs"] = number(integer(row[2]));
            one["reason"] = text(row[3]);
            one["bytes"] = number(integer(row[4]));
            return true;
        });
    return out;
}

std::string unusableBytes(Sql& sql, std::int64_t id) {
    const Cell parameter[] = {id};
    const auto rows = sql.query("SELECT payload FROM unusable WHERE id = $1", parameter);
    if (rows.empty()) {
        throw Problem(404, "nothing unusable has the id " + std::to_string(id));
    }
    return text(rows[0][0]);
}

}  // namespace vlmBackend::web
