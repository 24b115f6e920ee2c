#include "tools/watch/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "json/JsonFields.h"
#include "kyo/Json.h"

namespace vlmWatch {

using qdr::services::DescribedEvent;
using qdr::services::FieldInfo;
using qdr::services::FieldValue;

namespace {

constexpr std::size_t kTimeWidth = 12;
constexpr std::size_t kSkippedWidth = 6;
constexpr std::size_t kMoreWidth = 9;    // "  +5 more"
constexpr std::size_t kNumberWidth = 9;  // most numbers fit, so that the header comes once

/// Columns of a terminal: units have characters of several bytes.
std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string padded(const std::string& text, std::size_t width, bool right = false) {
    const std::size_t own = widthOf(text);
    const std::string blanks(own < width ? width - own : 0, ' ');
    return right ? blanks + text : text + blanks;
}

std::string trimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

template <typename Number>
std::string digits(Number value, const char* format) {
    char text[40];
    const int size = std::snprintf(text, sizeof text, format, value);
    return {text, static_cast<std::size_t>(size)};
}

template <typename Number>
std::string shortest(Number value) {
    char text[40];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

bool isFloat(const FieldInfo& field) {
    return std::string_view(field.type) == "float";
}

std::optional<std::int64_t> integerOf(const FieldValue& value) {
    if (const auto* const number = std::get_if<std::int64_t>(&value)) {
        return *number;
    }
    const auto* const number = std::get_if<std::uint64_t>(&value);
    return number == nullptr ? std::nullopt : std::optional(static_cast<std::int64_t>(*number));
}

std::string unitOf(const FieldInfo& field) {
    const std::string unit = field.unit;
    return unit == "1" ? "" : unit;
}

std::string csvCell(const FieldInfo& field, const FieldValue& value) {
    if (const auto* const real = std::get_if<double>(&value)) {
        return isFloat(field) ? shortest(static_cast<float>(*real)) : shortest(*real);
    }
    if (const auto* const text = std::get_if<std::string>(&value)) {
        std::string quoted = "\"";
        for (const char c : *text) {
            quoted += c == '"' ? "\"\"" : std::string(1, c);
        }
        return quoted + '"';
    }
    if (const auto* const flag = std::get_if<bool>(&value)) {
        return *flag ? "true" : "false";
    }
    const auto number = integerOf(value);
    const auto name = field.nameOf(*number);
    if (!name.empty()) {
        return std::string(name);
    }
    const auto* const positive = std::get_if<std::uint64_t>(&value);
    return positive != nullptr ? std::to_string(*positive) : std::to_string(*number);
}

}  // namespace

std::string cutTo(const std::string& line, std::size_t width) {
    if (width == 0 || widthOf(line) <= width) {
        return line;
    }
    std::size_t end = 0;
    for (std::size_t left = width - std::min<std::size_t>(width, 2) + 1; end < line.size(); ++end) {
        const bool isNext = (static_cast<unsigned char>(line[end]) & 0xC0) != 0x80;
        if (isNext && --left == 0) {
            break;
        }
    }
    return line.substr(0, end) + "..";
}

std::string timeText(std::int64_t timeUs) {
    const auto seconds = static_cast<std::time_t>(timeUs / 1000000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[40];
    const int size = std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min,
                                   parts.tm_sec, static_cast<int>(timeUs / 1000 % 1000));
    return {text, static_cast<std::size_t>(size)};
}

std::string sampleName(const Selected& selected, const Arrival& arrival) {
    std::string name = selected.path();
    if (arrival.instance != 1) {
        name += "#" + std::to_string(arrival.instance);
    }
    if (!arrival.index) {
        return name;
    }
    name += ":" + std::to_string(*arrival.index);
    const auto word = selected.event->indexField().nameOf(*arrival.index);
    return word.empty() ? name : name + " " + std::string(word);
}

std::string valueText(const FieldInfo& field, const FieldValue& value) {
    if (const auto* const real = std::get_if<double>(&value)) {
        return isFloat(field) ? digits(*real, "%.7g") : digits(*real, "%.9g");
    }
    if (const auto* const text = std::get_if<std::string>(&value)) {
        return vlmProd::compactText(kyo::Json::Value(*text));
    }
    return csvCell(field, value);
}

std::string jsonLine(const Selected& selected, const Arrival& arrival) {
    using kyo::Json::Value;
    Value line(kyo::Json::objectValue);
    line["timestamp"] = Value(static_cast<kyo::Json::UInt64>(arrival.timeUs / 1000));
    line["service"] = Value(selected.service->name());
    line["event"] = Value(selected.event->name());
    line["instance"] = Value(static_cast<kyo::Json::UInt64>(arrival.instance));
    line["index"] = arrival.index ? Value(static_cast<kyo::Json::Int64>(*arrival.index)) : Value();
    Value& values = line["values"] = Value(kyo::Json::objectValue);
    for (std::size_t i = 0; i < arrival.values.size(); ++i) {
        if (const auto& value = arrival.values[i]) {
            values[selected.event->fields()[i].name] =
                std::visit([](const auto& held) { return Value(held); }, *value);
        }
    }
    return vlmProd::compactText(line) + '\n';
}

std::string csvHeader(const DescribedEvent& event) {
    std::string line = "time";
    for (const FieldInfo& field : event.fields()) {
        line += std::string(",") + field.name;
    }
    return line + '\n';
}

std::string csvRow(const DescribedEvent& event, const Arrival& arrival) {
    char time[40];
    std::snprintf(time, sizeof time, "%lld.%06lld", static_cast<long long>(arrival.timeUs / 1000000),
                  static_cast<long long>(arrival.timeUs % 1000000));
    std::string line = time;
    for (std::size_t i = 0; i < arrival.values.size(); ++i) {
        line += ',';
        if (const auto& value = arrival.values[i]) {
            line += csvCell(event.fields()[i], *value);
        }
    }
    return line + '\n';
}

Lines::Lines(const std::vector<Selected>& selection, Options options)
    : m_selection(selection),
      m_options(std::move(options)),
      m_isTable(selection.size() == 1 && !m_options.explain) {
    for (const Selected& one : selection) {
        m_columns.push_back(columnsOf(one));
    }
}

Lines::Columns Lines::columnsOf(const Selected& selected) const {
    const DescribedEvent& event = *selected.event;
    // A sample with a writer has its fields; the index is in the name.
    std::set<std::string> written;
    for (const auto& [index, fields] : event.writers()) {
        if (selected.takes(index)) {
            written.insert(fields.begin(), fields.end());
        }
    }
    Columns columns;
    for (std::size_t place = 0; place < event.fields().size(); ++place) {
        const FieldInfo& field = event.fields()[place];
        const bool isWanted = m_options.fields.empty()
                                  ? event.fieldOfState(field.name) == nullptr &&
                                        (written.empty() || written.contains(field.name)) &&
                                        &field != &event.indexField()
                                  : m_options.fields.contains(field.name);
        if (!isWanted) {
            continue;
        }
        Column column{&field, place, std::nullopt, unitOf(field)};
        for (std::size_t other = 0; other < event.fields().size(); ++other) {
            if (event.fieldOfState(event.fields()[other].name) == &field) {
                column.state = other;
            }
        }
        column.isNumber = field.enumerators.empty() && std::string_view(field.type) != "bool" &&
                          std::string_view(field.type) != "string";
        columns.push_back(std::move(column));
    }
    return columns;
}

std::string Lines::cell(const Column& column, const Arrival& arrival) {
    const auto& value = arrival.values[column.place];
    std::string text = value ? valueText(*column.field, *value) : "";
    if (column.state && arrival.values[*column.state]) {
        const FieldInfo& state = column.field[static_cast<std::ptrdiff_t>(*column.state) -
                                              static_cast<std::ptrdiff_t>(column.place)];
        if (const std::string word = valueText(state, *arrival.values[*column.state]); word != "valid") {
            text += (text.empty() ? "(" : " (") + word + ")";
        }
    }
    return text.empty() ? "-" : text;
}

std::string Lines::prefix(const Arrival& arrival, std::uint64_t skipped) {
    std::string start = timeText(arrival.timeUs) + "  ";
    if (m_options.sparse) {
        start += padded(skipped == 0 ? "" : "+" + std::to_string(skipped), kSkippedWidth, true) + "  ";
    }
    const Selected& selected = m_selection[arrival.selected];
    const std::string path = selected.path();
    // In a table the header has the event.
    const std::string name = sampleName(selected, arrival).substr(m_isTable ? path.size() : 0);
    const std::size_t width = std::max({m_nameWidth, name.size(), m_isTable ? path.size() : 0});
    m_headerIsDue = m_headerIsDue || width != m_nameWidth;
    m_nameWidth = width;
    return start + padded(name, m_nameWidth);
}

/// The number of columns that fit the terminal.
std::size_t Lines::fitting(const Columns& columns, std::size_t startWidth) const {
    std::size_t width = startWidth;
    for (std::size_t i = 0; i < columns.size() && m_options.width != 0; ++i) {
        width += 2 + columns[i].width;
        if (width + (i + 1 < columns.size() ? kMoreWidth : 0) > m_options.width) {
            return i;
        }
    }
    return columns.size();
}

std::string Lines::header(const Selected& selected, const Columns& columns, std::size_t startWidth) {
    std::string names = padded("UTC", kTimeWidth + 2);
    if (m_options.sparse) {
        names += padded("more", kSkippedWidth, true) + "  ";
    }
    names = padded(names + selected.path(), startWidth);
    std::string units(startWidth, ' ');
    const std::size_t count = fitting(columns, startWidth);
    for (std::size_t i = 0; i < count; ++i) {
        names += "  " + padded(columns[i].field->name, columns[i].width, columns[i].isNumber);
        units += "  " + padded(columns[i].unit, columns[i].width, columns[i].isNumber);
    }
    if (count < columns.size()) {
        names += "  +" + std::to_string(columns.size() - count) + " more";
    }
    m_sinceHeader = 0;
    m_headerIsDue = false;
    const std::string second = trimmed(units);
    return trimmed(names) + '\n' + (second.empty() ? "" : second + '\n');
}

std::string Lines::tableRow(const Selected& selected, Columns& columns, const std::string& start,
                            const Arrival& arrival) {
    const std::size_t before = fitting(columns, start.size());
    std::vector<std::string> cells;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        Column& column = columns[i];
        cells.push_back(cell(column, arrival));
        const std::size_t width = std::max({column.width, cells.back().size(), widthOf(column.field->name),
                                            widthOf(column.unit), column.isNumber ? kNumberWidth : 0});
        m_headerIsDue = m_headerIsDue || (width != column.width && i < before);
        column.width = width;
    }
    const std::size_t count = fitting(columns, start.size());
    m_hasCut = m_hasCut || count < columns.size();
    std::string text;
    if (m_headerIsDue || count != before || (m_options.height > 4 && m_sinceHeader + 3 >= m_options.height)) {
        text = header(selected, columns, start.size());
    }
    ++m_sinceHeader;
    std::string row = start;
    for (std::size_t i = 0; i < count; ++i) {
        row += "  " + padded(cells[i], columns[i].width, columns[i].isNumber);
    }
    return text + trimmed(row) + '\n';
}

std::string Lines::pairs(Columns& columns, const std::string& start, const Arrival& arrival) {
    std::string row = start;
    for (Column& column : columns) {
        if (!arrival.values[column.place] && m_options.fields.empty()) {
            continue;
        }
        const std::string text = std::string(column.field->name) + "=" + cell(column, arrival) + column.unit;
        column.width = std::max(column.width, widthOf(text));
        row += "  " + padded(text, column.width);
    }
    row = trimmed(row);
    const std::string shown = cutTo(row, m_options.width);
    m_hasCut = m_hasCut || shown != row;
    return shown + '\n';
}

std::string Lines::block(const Selected& selected, const Columns& columns, const std::string& start,
                         const Arrival& arrival) {
    std::size_t nameWidth = 0;
    std::size_t valueWidth = 0;
    for (const Column& column : columns) {
        nameWidth = std::max(nameWidth, std::string(column.field->name).size());
        valueWidth = std::max(valueWidth, cell(column, arrival).size() + 1 + widthOf(column.unit));
    }
    std::string text = trimmed(start) + "  " + selected.event->summary() + '\n';
    for (const Column& column : columns) {
        if (!arrival.values[column.place] && m_options.fields.empty()) {
            continue;
        }
        const std::string value = cell(column, arrival) + (column.unit.empty() ? "" : " " + column.unit);
        text += "  " + padded(column.field->name, nameWidth) + "  " + padded(value, valueWidth) + "  " +
                column.field->meaning + '\n';
    }
    return text;
}

std::string Lines::of(const Arrival& arrival, std::uint64_t skipped) {
    const Selected& selected = m_selection[arrival.selected];
    Columns& columns = m_columns[arrival.selected];
    const std::string start = prefix(arrival, skipped);
    if (m_options.explain) {
        return block(selected, columns, start, arrival);
    }
    return m_isTable ? tableRow(selected, columns, start, arrival) : pairs(columns, start, arrival);
}

std::string explained(const Selected& selected) {
    const DescribedEvent& event = *selected.event;
    std::string text = "  " + event.name() + ", every " + std::to_string(event.cycleMs()) + " ms over " +
                       (event.interface().reliable ? "TCP" : "UDP") + ": " + event.summary() + '\n';
    std::size_t nameWidth = 0;
    std::size_t unitWidth = 0;
    for (const FieldInfo& field : event.fields()) {
        nameWidth = std::max(nameWidth, std::string(field.name).size());
        unitWidth = std::max(unitWidth, widthOf(unitOf(field)));
    }
    for (const auto& index : event.indexes()) {
        const std::string name = index.name;
        const std::string meaning = index.meaning;
        if (selected.takes(index.value) && !(name.empty() && meaning.empty())) {
            text += trimmed("    :" + std::to_string(index.value) + " " + padded(name, nameWidth) + "  " +
                            meaning) +
                    '\n';
        }
    }
    for (const FieldInfo& field : event.fields()) {
        text += "    " + padded(field.name, nameWidth) + "  " + padded(unitOf(field), unitWidth) + "  " +
                field.meaning;
        if (field.hasRange) {
            text += " " + digits(field.minimum, "%.9g") + " to " + digits(field.maximum, "%.9g") + ".";
        }
        std::string words;
        for (const auto& enumerator : field.enumerators) {
            words += (words.empty() ? " " : ", ") + std::to_string(enumerator.value) + " " + enumerator.name;
        }
        text += (words.empty() ? "" : words + ".") + '\n';
    }
    return text;
}

}  // namespace vlmWatch
