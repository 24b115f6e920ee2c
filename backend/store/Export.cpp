#include "backend/store/Export.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <regex>

#include "backend/Compression.h"
#include "backend/store/Events.h"

namespace vlmBackend::store {

namespace {

namespace chrono = std::chrono;

/// RFC 4180.
std::string csvCell(const Cell& cell) {
    std::string plain = text(cell);
    if (plain.find_first_of(",\"\r\n") == std::string::npos) {
        return plain;
    }
    std::string quoted = "\"";
    for (const char c : plain) {
        quoted.append(c == '"' ? 2 : 1, c);
    }
    return quoted + '"';
}

std::string xmlText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    }
    return out;
}

std::int64_t idOf(Sql& sql, const std::string& vehicle) {
    const Cell parameter[] = {vehicle};
    const auto rows = sql.query("SELECT id FROM vehicles WHERE name = $1", parameter);
    if (rows.empty()) {
        throw ExportError("no vehicle is named \"" + vehicle + "\"");
    }
    return integer(rows[0][0]);
}

/// A union's column has one type in PostgreSQL; SQLite would shorten a number on its way to a text.
std::string asText(const std::string& column, Dialect dialect) {
    return dialect == Dialect::Sqlite ? column : "CAST(" + column + " AS TEXT)";
}

/// View and field of "gnss_positions.latitude".
std::pair<const Event*, const EventField*> resolve(const std::string& column) {
    const auto dot = column.find('.');
    const Event* const event = findView(std::string_view(column).substr(0, dot));
    if (event == nullptr || dot == std::string::npos) {
        throw ExportError("\"" + column + "\": a column is <view>.<column>, such as gnss_positions.latitude");
    }
    for (const EventField& field : event->fields) {
        if (field.column == std::string_view(column).substr(dot + 1) ||
            field.name == column.substr(dot + 1)) {
            return {event, &field};
        }
    }
    throw ExportError("\"" + column + "\": the view has no such column");
}

}  // namespace

std::string utcText(std::int64_t ms) {
    const chrono::sys_time<chrono::milliseconds> time{chrono::milliseconds(ms)};
    const auto day = chrono::floor<chrono::days>(time);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss clock(time - day);
    char out[64];
    std::snprintf(out, sizeof out, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    return out;
}

std::int64_t utcMs(const std::string& text) {
    static const std::regex form(
        R"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d)(?:\.(\d{3}))?)?)?Z?)");
    std::smatch parts;
    const bool good = std::regex_match(text, parts, form);
    const auto part = [&parts](std::size_t i) { return parts[i].matched ? std::stoi(parts[i].str()) : 0; };
    const chrono::year_month_day date =
        good ? chrono::year_month_day{chrono::year(part(1)), chrono::month(static_cast<unsigned>(part(2))),
                                      chrono::day(static_cast<unsigned>(part(3)))}
             : chrono::year_month_day{};
    if (!good || !date.ok() || part(4) > 23 || part(5) > 59 || part(6) > 59) {
        throw ExportError("\"" + text + "\": a UTC time such as 2026-11-25T10:00:00.000 is expected");
    }
    const auto time = chrono::sys_days(date) + chrono::hours(part(4)) + chrono::minutes(part(5)) +
                      chrono::seconds(part(6)) + chrono::milliseconds(part(7));
    return chrono::duration_cast<chrono::milliseconds>(time.time_since_epoch()).count();
}

std::size_t exportCsv(Sql& sql, const Selection& selection, std::ostream& out) {
    const std::int64_t vehicle = idOf(sql, selection.vehicle);
    if (selection.columns.empty()) {
        throw ExportError("no column is chosen");
    }
    std::string statement;
    std::map<const Event*, std::string> selects;
    for (std::size_t i = 0; i < selection.columns.size(); ++i) {
        selects[resolve(selection.columns[i]).first];
    }
    for (auto& [event, select] : selects) {
        select = "SELECT time_ms, instance";
        for (const std::string& column : selection.columns) {
            const auto [of, field] = resolve(column);
            select += of == event ? ", " + asText("\"" + std::string(field->column) + "\"", sql.dialect())
                                  : ", NULL";
        }
        select += " FROM \"" + std::string(event->view) +
                  "\" WHERE vehicle = (SELECT name FROM vehicles WHERE id = $1) AND time_ms >= $2 AND "
                  "time_ms < $3" +
                  (selection.instance ? " AND instance = $4" : "");
        statement += (statement.empty() ? "" : " UNION ALL ") + select;
    }
    statement += " ORDER BY 1";
    out << "time,instance";
    for (const std::string& column : selection.columns) {
        out << ',' << column;
    }
    out << "\r\n";
    std::size_t rows = 0;
    std::vector<Cell> parameters{vehicle, selection.fromMs, selection.toMs};
    if (selection.instance) {
        parameters.emplace_back(*selection.instance);
    }
    sql.stream(statement, parameters, [&](const Row& row) {
        out << utcText(integer(row[0]));
        for (std::size_t i = 1; i < row.size(); ++i) {
            out << ',' << csvCell(row[i]);
        }
        out << "\r\n";
        ++rows;
        return out.good();
    });
    return rows;
}

std::size_t exportGpx(Sql& sql, const Selection& selection, std::ostream& out) {
    idOf(sql, selection.vehicle);
    // Several solutions are several tracks; the usual one has the most points.
    const Cell within[] = {selection.vehicle, selection.fromMs, selection.toMs};
    const auto instances = sql.query(
        "SELECT instance FROM gnss_positions WHERE vehicle = $1 AND time_ms >= $2 AND time_ms < $3 "
        "GROUP BY instance ORDER BY COUNT(*) DESC, instance LIMIT 1",
        within);
    const std::int64_t instance =
        selection.instance.value_or(instances.empty() ? 0 : integer(instances[0][0]));
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<gpx version=\"1.1\" creator=\"vlm-backend\" "
           "xmlns=\"http://www.topografix.com/GPX/1/1\">\n<trk><name>"
        << xmlText(selection.vehicle) << "</name><trkseg>\n";
    std::size_t points = 0;
    const Cell parameters[] = {selection.vehicle, selection.fromMs, selection.toMs, instance};
    sql.stream(
        "SELECT time_ms, latitude, longitude, altitude_mean_sea_level FROM gnss_positions WHERE vehicle = $1 "
        "AND time_ms >= $2 AND time_ms < $3 AND instance = $4 AND latitude IS NOT NULL AND longitude IS NOT "
        "NULL ORDER BY time_ms",
        parameters, [&](const Row& row) {
            out << "<trkpt lat=\"" << text(row[1]) << "\" lon=\"" << text(row[2]) << "\">";
            if (!std::holds_alternative<std::monostate>(row[3])) {
                out << "<ele>" << text(row[3]) << "</ele>";
            }
            out << "<time>" << utcText(integer(row[0])) << "</time></trkpt>\n";
            ++points;
            return out.good();
        });
    out << "</trkseg></trk>\n</gpx>\n";
    return points;
}

std::size_t exportEnvelopes(Sql& sql, const Selection& selection, std::ostream& out) {
    const Cell parameters[] = {idOf(sql, selection.vehicle), selection.fromMs, selection.toMs};
    std::size_t lines = 0;
    sql.stream(
        "SELECT envelope FROM reports WHERE vehicle = $1 AND measured_to >= $2 AND measured_from < $3 ORDER "
        "BY id",
        parameters, [&](const Row& row) {
            std::string envelope;
            std::string error;
            if (!kyo::orx::decompress(kyo::orx::Encoding::Zstd, text(row[0]), envelope, error)) {
                throw DatabaseError("an envelope cannot be read back: " + error);
            }
            out << envelope << '\n';
            ++lines;
            return out.good();
        });
    return lines;
}

}  // namespace vlmBackend::store
