#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tools/check/Suggest.h"
#include "tools/vehicle/Replay.h"

namespace vlmVehicle {

using qdr::services::DescribedEvent;
using qdr::services::FieldInfo;
using qdr::services::FieldValue;
using qdr::services::FieldValues;

namespace {

struct Cell {
    std::string text;
    bool quoted = false;
};

struct Row {
    std::size_t line;
    std::vector<Cell> cells;
};

/// Reads RFC 4180: quoted cells with doubled quotes and line ends inside. Returns false, with the line of the
/// opening quote in `badLine`, when a quote is not closed.
bool split(const std::string& text, std::vector<Row>& rows, std::size_t& badLine) {
    std::size_t line = 1;
    Row row{1, {}};
    Cell cell;
    bool inside = false;
    std::size_t opened = 0;
    const auto endCell = [&] {
        row.cells.push_back(std::move(cell));
        cell = {};
    };
    const auto endRow = [&] {
        endCell();
        const bool empty = row.cells.size() == 1 && row.cells[0].text.empty() && !row.cells[0].quoted;
        if (!empty) {
            rows.push_back(std::move(row));
        }
        row = {line, {}};
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        line += c == '\n' ? 1 : 0;
        if (inside) {
            if (c != '"') {
                cell.text += c;
            } else if (i + 1 < text.size() && text[i + 1] == '"') {
                cell.text += text[++i];
            } else {
                inside = false;
            }
        } else if (c == '"' && cell.text.empty()) {
            inside = cell.quoted = true;
            opened = line;
        } else if (c == ',') {
            endCell();
        } else if (c == '\n') {
            endRow();
        } else if (c != '\r') {
            cell.text += c;
        }
    }
    badLine = opened;
    if (!inside) {
        endRow();
    }
    return !inside;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

template <typename Number>
bool wholeNumber(const std::string& text, Number& out) {
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), out);
    return fault == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool parseField(const std::string& text, const FieldInfo& field, FieldValue& out, std::string& error) {
    const std::string type = field.type;
    if (type == "string") {
        out = text;
        return true;
    }
    if (!field.enumerators.empty()) {
        std::vector<std::string> names;
        for (const auto& enumerator : field.enumerators) {
            names.emplace_back(enumerator.name);
            if (text == enumerator.name) {
                out = text;
                return true;
            }
        }
        std::int64_t number = 0;
        if (wholeNumber(text, number)) {
            out = number;
            return true;
        }
        const std::string hint = vlmCheck::didYouMean(text, names);
        error = "\"" + text + "\" is none of " + vlmCheck::listed(names) + (hint.empty() ? "" : "; " + hint);
        return false;
    }
    if (type == "bool") {
        out = text == "true" || text == "1";
        error = "\"" + text + "\" is neither true nor false";
        return text == "true" || text == "false" || text == "1" || text == "0";
    }
    double real = 0;
    if (type == "double" || type == "float") {
        out = 0.0;
        if (!wholeNumber(text, real) || !std::isfinite(real)) {
            error = "\"" + text + "\" is no number";
            return false;
        }
        out = real;
        return true;
    }
    std::uint64_t positive = 0;
    std::int64_t number = 0;
    if (type[0] == 'u' && wholeNumber(text, positive)) {
        out = positive;
        return true;
    }
    if (type[0] == 'i' && wholeNumber(text, number)) {
        out = number;
        return true;
    }
    error = "\"" + text + "\" is no whole number of type " + type;
    return false;
}

bool CsvRecording::readFile(const std::string& path, const DescribedEvent& event, CsvRecording& out,
                            std::string& error) {
    std::ifstream file(path, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file) {
        error = path + ": cannot be read: " + std::strerror(errno);
        return false;
    }
    return read(text, path, event, out, error);
}

namespace {

/// Which column of a recording means what.
struct Header {
    std::vector<const FieldInfo*> columns;  ///< nullptr: the time
    std::size_t timeColumn = 0;
    double timeUnit = 1;  ///< s
};

/// Returns why the row names no columns of the event; an empty text if it does.
std::string readHeader(const std::vector<Cell>& cells, const DescribedEvent& event, Header& out) {
    std::vector<std::string> known = {"time", "timestamp"};
    for (const auto& field : event.fields()) {
        known.emplace_back(field.name);
    }
    out.timeColumn = cells.size();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::string column = trimmed(cells[i].text);
        const FieldInfo* found = nullptr;
        for (const auto& field : event.fields()) {
            found = field.name == column ? &field : found;
        }
        out.columns.push_back(found);
        if (found != nullptr) {
            continue;
        }
        if ((column != "time" && column != "timestamp") || out.timeColumn != cells.size()) {
            const std::string hint = vlmCheck::didYouMean(column, known);
            return "column \"" + column + "\" is no field of " + event.name() +
                   (hint.empty() ? "; known are " + vlmCheck::listed(known) : "; " + hint);
        }
        out.timeColumn = i;
        out.timeUnit = column == "time" ? 1 : 0.001;
    }
    return out.timeColumn == cells.size()
               ? "a column \"time\" (seconds) or \"timestamp\" (milliseconds) is expected"
               : "";
}

/// Returns why the row is no sample; an empty text if it is. `time` is in s.
std::string readSample(const std::vector<Cell>& cells, const Header& header, const std::string& timeName,
                       double& time, FieldValues& sample) {
    if (cells.size() != header.columns.size()) {
        return std::to_string(cells.size()) + " cells where " + std::to_string(header.columns.size()) +
               " are expected";
    }
    if (const std::string cell = trimmed(cells[header.timeColumn].text);
        !wholeNumber(cell, time) || !std::isfinite(time)) {
        return "column \"" + timeName + "\": \"" + cell + "\" is no number";
    }
    time *= header.timeUnit;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::string cell = cells[i].quoted ? cells[i].text : trimmed(cells[i].text);
        if (i == header.timeColumn || (cell.empty() && !cells[i].quoted)) {
            continue;
        }
        const FieldInfo& field = *header.columns[i];
        if (std::string reason; !parseField(cell, field, sample[field.name], reason)) {
            return "column \"" + std::string(field.name) + "\": " + reason;
        }
    }
    return "";
}

}  // namespace

bool CsvRecording::read(const std::string& text, const std::string& name, const DescribedEvent& event,
                        CsvRecording& out, std::string& error) {
    const auto refuse = [&](std::size_t line, const std::string& reason) {
        error = name + ":" + std::to_string(line) + ": " + reason;
        return false;
    };
    std::vector<Row> rows;
    std::size_t badLine = 0;
    if (!split(text.rfind("\xEF\xBB\xBF", 0) == 0 ? text.substr(3) : text, rows, badLine)) {
        return refuse(badLine, "nothing closes this quotation mark");
    }
    if (rows.empty()) {
        return refuse(1, "a first line with the names of the columns is expected");
    }
    Header header;
    if (const std::string reason = readHeader(rows[0].cells, event, header); !reason.empty()) {
        return refuse(rows[0].line, reason);
    }
    const std::string timeName = trimmed(rows[0].cells[header.timeColumn].text);
    std::vector<Notification> notifications;
    double first = 0;
    for (std::size_t r = 1; r < rows.size(); ++r) {
        double time = 0;
        FieldValues sample;
        if (const std::string reason = readSample(rows[r].cells, header, timeName, time, sample);
            !reason.empty()) {
            return refuse(rows[r].line, reason);
        }
        if (r == 1) {
            first = time;
        }
        time -= first;
        if (!notifications.empty() && time < notifications.back().time) {
            return refuse(rows[r].line, "time goes back");
        }
        if (notifications.empty() || time != notifications.back().time) {
            notifications.push_back({time, {}});
        }
        notifications.back().samples.push_back(std::move(sample));
    }
    if (notifications.empty()) {
        return refuse(rows[0].line, "no row with a sample follows");
    }
    out.m_notifications = std::move(notifications);
    return true;
}

}  // namespace vlmVehicle
