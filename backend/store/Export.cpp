#include "backend/store/Export.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <regex>
#include <utility>

#include "backend/Compression.h"
#include "backend/store/Events.h"
#include "backend/store/Samples.h"
#include "backend/store/Schema.h"

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

struct Sample {
    std::int64_t measuredMs = 0;
    std::int64_t instance = 0;
    std::vector<Cell> values;
};

/// The samples of one event in the order of measured time.
class Samples {
  public:
    Samples(const Lend& lend, const Selection& selection, const Event& event,
            const std::vector<const EventField*>& fields, std::optional<std::int64_t> instance)
        : m_lend(lend) {
        lend([&](Sql& sql) {
            const Dialect dialect = sql.dialect();
            m_statement = std::string("SELECT s.measured, s.instance, ") + rowExpression(dialect);
            for (const EventField* field : fields) {
                const std::string value = valueOf(*field, dialect);
                // SQLite would shorten a number on its way to a text.
                m_statement += ", " + (dialect == Dialect::Sqlite ? value : "CAST(" + value + " AS TEXT)");
            }
            m_statement +=
                " FROM samples s WHERE s.vehicle = $1 AND s.event = $2 AND s.measured < $3 AND (s.measured, "
                "s.instance, " +
                std::string(rowExpression(dialect)) + ") > ($4, $5, $6)" +
                (instance ? " AND s.instance = $7" : "") + " ORDER BY 1, 2, 3 LIMIT " + std::to_string(kRows);
            const Place start = Place::before(selection.fromMs, dialect);
            m_parameters = {idOf(sql, selection.vehicle),
                            eventId(sql, event),
                            selection.toMs,
                            start.measuredMs,
                            start.instance,
                            start.row};
            if (instance) {
                m_parameters.emplace_back(*instance);
            }
        });
    }

    /// Null after the last one.
    const Sample* front() {
        if (m_at == m_page.size() && m_more) {
            read();
        }
        return m_at < m_page.size() ? &m_page[m_at] : nullptr;
    }
    void pop() { ++m_at; }

  private:
    static constexpr std::size_t kRows = 1000;
    static constexpr std::size_t kBytes = 1u << 20;  ///< of texts, as nobody limits those of a vehicle

    void read() {
        m_page.clear();
        m_at = 0;
        std::size_t bytes = 0;
        std::vector<Cell> last;
        m_lend([&](Sql& sql) {
            sql.stream(m_statement, m_parameters, [&](const Row& row) {
                m_page.push_back({integer(row[0]), integer(row[1]), {row.begin() + 3, row.end()}});
                for (const Cell& cell : row) {
                    const auto* const words = std::get_if<std::string>(&cell);
                    bytes += words == nullptr ? 0 : words->size();
                }
                last.assign(row.begin(), row.begin() + 3);
                return bytes < kBytes;
            });
        });
        m_more = m_page.size() == kRows || bytes >= kBytes;
        std::ranges::copy(last, m_parameters.begin() + 3);
    }

    const Lend& m_lend;
    std::string m_statement;
    std::vector<Cell> m_parameters;
    std::vector<Sample> m_page;
    std::size_t m_at = 0;  ///< in m_page
    bool m_more = true;
};

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

std::size_t exportCsv(const Lend& lend, const Selection& selection, std::ostream& out) {
    if (selection.columns.empty()) {
        throw ExportError("no column is chosen");
    }
    struct Source {
        std::vector<const EventField*> fields;
        std::vector<std::size_t> columns;  ///< of the output, one for each field
        std::unique_ptr<Samples> samples;
    };
    std::map<const Event*, Source> sources;
    std::string head = "time,instance";
    for (std::size_t i = 0; i < selection.columns.size(); ++i) {
        const auto [event, field] = resolve(selection.columns[i]);
        sources[event].fields.push_back(field);
        sources[event].columns.push_back(i);
        head += ',' + selection.columns[i];
    }
    for (auto& [event, source] : sources) {
        source.samples =
            std::make_unique<Samples>(lend, selection, *event, source.fields, selection.instance);
    }
    out << head << "\r\n";
    std::size_t rows = 0;
    for (; out.good(); ++rows) {
        Source* earliest = nullptr;
        for (auto& [event, source] : sources) {
            if (source.samples->front() != nullptr &&
                (earliest == nullptr ||
                 source.samples->front()->measuredMs < earliest->samples->front()->measuredMs)) {
                earliest = &source;
            }
        }
        if (earliest == nullptr) {
            break;
        }
        const Sample& sample = *earliest->samples->front();
        std::vector<std::string> cells(selection.columns.size());
        for (std::size_t i = 0; i < sample.values.size(); ++i) {
            cells[earliest->columns[i]] = csvCell(sample.values[i]);
        }
        out << utcText(sample.measuredMs) << ',' << sample.instance;
        for (const std::string& cell : cells) {
            out << ',' << cell;
        }
        out << "\r\n";
        earliest->samples->pop();
    }
    return rows;
}

std::size_t exportGpx(const Lend& lend, const Selection& selection, std::ostream& out) {
    const Event& event = *findView("gnss_positions");
    std::optional<std::int64_t> instance = selection.instance;
    lend([&](Sql& sql) {
        // Several solutions are several tracks; the usual one has the most points.
        const Cell within[] = {idOf(sql, selection.vehicle), eventId(sql, event), selection.fromMs,
                               selection.toMs};
        const auto found = sql.query(
            "SELECT instance FROM samples WHERE vehicle = $1 AND event = $2 AND measured >= $3 AND measured "
            "< $4 GROUP BY instance ORDER BY COUNT(*) DESC, instance LIMIT 1",
            within);
        instance = instance.value_or(found.empty() ? 0 : integer(found[0][0]));
    });
    Samples samples(lend, selection, event,
                    {event.field("latitude"), event.field("longitude"), event.field("altitudeMeanSeaLevel")},
                    instance);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<gpx version=\"1.1\" creator=\"vlm-backend\" "
           "xmlns=\"http://www.topografix.com/GPX/1/1\">\n<trk><name>"
        << xmlText(selection.vehicle) << "</name><trkseg>\n";
    const auto isNull = [](const Cell& cell) { return std::holds_alternative<std::monostate>(cell); };
    std::size_t points = 0;
    for (; out.good() && samples.front() != nullptr; samples.pop()) {
        const Sample& sample = *samples.front();
        if (isNull(sample.values[0]) || isNull(sample.values[1])) {
            continue;
        }
        out << "<trkpt lat=\"" << text(sample.values[0]) << "\" lon=\"" << text(sample.values[1]) << "\">";
        if (!isNull(sample.values[2])) {
            out << "<ele>" << text(sample.values[2]) << "</ele>";
        }
        out << "<time>" << utcText(sample.measuredMs) << "</time></trkpt>\n";
        ++points;
    }
    out << "</trkseg></trk>\n</gpx>\n";
    return points;
}

std::size_t exportEnvelopes(const Lend& lend, const Selection& selection, std::ostream& out) {
    std::vector<std::int64_t> reports;  // eight bytes each: a vehicle's year of one a minute has 4 MB
    lend([&](Sql& sql) {
        const Cell parameters[] = {idOf(sql, selection.vehicle), selection.fromMs, selection.toMs};
        sql.stream(
            "SELECT id FROM reports WHERE vehicle = $1 AND measured_to >= $2 AND measured_from < $3 ORDER BY "
            "id",
            parameters, [&](const Row& row) {
                reports.push_back(integer(row[0]));
                return true;
            });
    });
    std::size_t lines = 0;
    for (auto next = reports.begin(); next != reports.end() && out.good(); ++next) {
        std::vector<Row> rows;
        lend([&](Sql& sql) {
            const Cell parameter[] = {*next};
            rows = sql.query("SELECT envelope FROM reports WHERE id = $1", parameter);
        });
        if (rows.empty()) {
            continue;  // deleted by now
        }
        std::string envelope;
        std::string error;
        if (!kyo::orx::decompress(kyo::orx::Encoding::Zstd, text(rows[0][0]), envelope, error)) {
            throw DatabaseError("an envelope cannot be read back: " + error);
        }
        out << envelope << '\n';
        ++lines;
    }
    return lines;
}

}  // namespace vlmBackend::store
