#include "tools/watch/Rates.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "json/JsonFields.h"
#include "kyo/Json.h"
#include "tools/watch/Text.h"

namespace vlmWatch {

namespace {

std::string row(const char* name, int width, const std::string& rate, const std::string& expected,
                const std::string& total, const std::string& longest) {
    char text[400];
    const int size = std::snprintf(text, sizeof text, "%-*s  %9s  %9s  %10s  %10s", width, name, rate.c_str(),
                                   expected.c_str(), total.c_str(), longest.c_str());
    return {text, std::min(static_cast<std::size_t>(size), sizeof text - 1)};
}

std::string fixed(double value, int decimals) {
    char text[60];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%.*f", decimals, value))};
}

}  // namespace

void Rates::count(const Arrival& arrival) {
    Row& row = m_rows[{arrival.selected, arrival.instance, arrival.index}];
    if (row.name.empty()) {
        row.name = sampleName(m_selection[arrival.selected], arrival);
    } else {
        row.longestUs = std::max(row.longestUs, arrival.timeUs - row.lastUs);
    }
    row.lastUs = arrival.timeUs;
    ++row.recent;
    ++row.total;
}

double Rates::secondsSince(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - std::exchange(m_from, now)).count();
    return std::max(seconds, 1e-3);
}

std::string Rates::table(Clock::time_point now, std::size_t height, std::size_t columns) {
    const double seconds = secondsSince(now);
    std::vector<std::string> names;
    int width = 20;
    for (std::size_t i = 0; i < m_selection.size(); ++i) {
        width = std::max(width, static_cast<int>(m_selection[i].path().size()));
    }
    for (const auto& [key, one] : m_rows) {
        width = std::max(width, static_cast<int>(one.name.size()));
    }
    std::vector<std::string> lines{row("sample", width, "a second", "usual", "in all", "longest ms")};
    for (std::size_t i = 0; i < m_selection.size(); ++i) {
        const std::string usual = fixed(1000.0 / std::max(1u, m_selection[i].event->cycleMs()), 1);
        const std::string trouble = m_watcher.trouble(i);
        bool found = false;
        for (auto one = m_rows.lower_bound({i, 0, std::nullopt});
             one != m_rows.end() && one->first.selected == i; ++one) {
            Row& shown = one->second;
            lines.push_back(
                row(shown.name.c_str(), width, fixed(static_cast<double>(shown.recent) / seconds, 1), usual,
                    std::to_string(shown.total),
                    shown.total > 1 ? fixed(static_cast<double>(shown.longestUs) / 1000, 0) : "-"));
            shown.recent = 0;
            found = true;
        }
        if (!found) {
            const std::string path = m_selection[i].path();
            lines.push_back(path + std::string(static_cast<std::size_t>(width) - path.size() + 2, ' ') +
                            trouble);
        } else if (!trouble.empty()) {
            lines.back() += "  " + trouble;
        }
    }
    if (height != 0 && lines.size() > height) {
        const std::size_t hidden = lines.size() - height + 1;
        lines.resize(height - 1);
        lines.push_back("and " + std::to_string(hidden) + " more; select fewer, or use a pipe");
    }
    std::string text;
    for (const auto& line : lines) {
        text += cutTo(line, columns) + '\n';
    }
    return text;
}

std::string Rates::json(Clock::time_point now, std::int64_t timeUs) {
    using kyo::Json::Value;
    const double seconds = secondsSince(now);
    std::string text;
    for (std::size_t i = 0; i < m_selection.size(); ++i) {
        Value line(kyo::Json::objectValue);
        line["timestamp"] = Value(static_cast<kyo::Json::UInt64>(timeUs / 1000));
        line["service"] = Value(m_selection[i].service->name());
        line["event"] = Value(m_selection[i].event->name());
        line["trouble"] = Value(m_watcher.trouble(i));
        Value& rows = line["samples"] = Value(kyo::Json::arrayValue);
        for (auto one = m_rows.lower_bound({i, 0, std::nullopt});
             one != m_rows.end() && one->first.selected == i; ++one) {
            Value& entry = rows.append(Value(kyo::Json::objectValue));
            entry["instance"] = Value(static_cast<kyo::Json::UInt64>(one->first.instance));
            entry["index"] =
                one->first.index ? Value(static_cast<kyo::Json::Int64>(*one->first.index)) : Value();
            entry["perSecond"] = Value(static_cast<double>(one->second.recent) / seconds);
            entry["total"] = Value(static_cast<kyo::Json::UInt64>(one->second.total));
            entry["longestMs"] = Value(static_cast<double>(one->second.longestUs) / 1000);
            one->second.recent = 0;
        }
        text += vlmProd::compactText(line) + '\n';
    }
    return text;
}

}  // namespace vlmWatch
