#include "tools/state/StatusText.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "base/LossCounters.h"

namespace tools {

using vlmProd::countsLoss;
using vlmProd::countsLostLogLines;

namespace {

using kyo::Json::Value;
using Values = std::map<std::string, Value>;

void flattenInto(const Value& value, const std::string& name, Values& out) {
    if (!value.isObject() || value.empty() || isHistogram(value)) {
        out[name] = value;
        return;
    }
    for (auto member = value.begin(); member != value.end(); ++member) {
        flattenInto(*member, name.empty() ? member.name() : name + "." + member.name(), out);
    }
}

double numberOf(const Values& values, const std::string& name) {
    const auto found = values.find(name);
    return found != values.end() && found->second.isNumeric() ? found->second.asDouble() : 0.0;
}

std::string whole(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", number);
    return text;
}

std::string secondsText(double seconds) {
    char text[32];
    if (seconds < 1) {
        std::snprintf(text, sizeof text, "%g ms", seconds * 1000);
    } else {
        std::snprintf(text, sizeof text, "%g s", seconds);
    }
    return text;
}

/// "1200, half within 0.25 ms, 99 % within 1 ms"
std::string histogramText(const Value& value) {
    double count = 0;
    for (const Value& bucket : value["buckets"]) {
        count += bucket[1].asDouble();
    }
    std::string text = whole(count);
    for (const auto& [part, words] : {std::pair{0.5, ", half "}, {0.99, ", 99 % "}}) {
        double below = 0;
        std::string limit;
        std::string last;
        for (const Value& bucket : value["buckets"]) {
            below += bucket[1].asDouble();
            limit = bucket[0].isNumeric() ? "within " + secondsText(bucket[0].asDouble()) : "above " + last;
            last = bucket[0].isNumeric() ? secondsText(bucket[0].asDouble()) : last;
            if (below >= part * count) {
                break;
            }
        }
        text += count > 0 ? words + limit : "";
    }
    return text;
}

std::string textOf(const Value& value) {
    if (isHistogram(value)) {
        return histogramText(value);
    }
    if (value.isString()) {
        return value.asString();
    }
    return value.isBool() ? (value.asBool() ? "yes" : "no") : kyo::Json::FastWriter().write(value);
}

double sumOf(const Values& values, bool (*counts)(std::string_view)) {
    double sum = 0;
    for (const auto& [name, value] : values) {
        sum += counts(name) && value.isNumeric() ? value.asDouble() : 0.0;
    }
    return sum;
}

}  // namespace

Values flatten(const Value& snapshot) {
    Values values;
    if (snapshot.isObject() && !snapshot.empty()) {
        flattenInto(snapshot, "", values);
    }
    return values;
}

bool isHistogram(const Value& value) {
    if (!value.isObject() || !value["buckets"].isArray()) {
        return false;
    }
    return std::all_of(value["buckets"].begin(), value["buckets"].end(), [](const Value& bucket) {
        return bucket.isArray() && bucket.size() == 2 && bucket[1].isNumeric();
    });
}

std::string statusTable(const Value& snapshot) {
    const Values values = flatten(snapshot);
    std::size_t width = 0;
    for (const auto& [name, value] : values) {
        width = std::max(width, name.size());
    }
    std::string table;
    std::string lost;
    std::string group;
    for (const auto& [name, value] : values) {
        const bool loss = countsLoss(name) || countsLostLogLines(name);
        const std::string line = name + std::string(width + 2 - name.size(), ' ') + textOf(value) + "\n";
        if (loss && value.isNumeric()) {
            lost += value.asDouble() > 0 ? line : "";
            continue;
        }
        const std::string mine = name.substr(0, name.find('.'));
        if (!group.empty() && mine != group) {
            table += "\n";
        }
        group = mine;
        table += line;
    }
    return table + "\n" + (lost.empty() ? "Nothing was lost.\n" : "Lost, or not usable:\n" + lost);
}

std::string LiveLine::next(const Value& snapshot, std::chrono::steady_clock::time_point now) {
    const Values values = flatten(snapshot);
    const auto number = [&values](const char* name) { return whole(numberOf(values, name)); };
    const auto known = [&values](const char* name) { return values.count(name) != 0; };

    const double samples = numberOf(values, "samples.received");
    const double seconds = std::chrono::duration<double>(now - m_when).count();
    const bool rateKnown = m_any && seconds > 0 && samples >= m_samples;
    const double rate = rateKnown ? (samples - m_samples) / seconds : 0;
    m_any = true;
    m_samples = samples;
    m_when = now;

    std::string line = "services " + number("services.found") + "/" + number("services.configured");
    line += ", events " + number("events.subscribed");
    line += " | samples " + whole(samples) + (rateKnown ? " (" + whole(rate) + "/s)" : "");
    line += ", waiting " + number("records.waiting");
    if (known("clock.nextTickMs") && numberOf(values, "clock.nextTickMs") >= 0) {
        line += " | tick in " + whole(numberOf(values, "clock.nextTickMs") / 1000) + " s";
    }
    line += " | reports " + number("reports.built") + ", sent " + number("reports.sent") + ", waiting " +
            number("reports.waiting");
    if (const auto open = values.find("backend.open"); open != values.end() && open->second.isBool()) {
        line += open->second.asBool() ? ", backend open" : ", backend closed";
    }
    if (known("spool.waiting")) {
        line += " | spool " + number("spool.waiting");
        if (numberOf(values, "spool.waiting") > 0) {
            line += " (" + whole(numberOf(values, "spool.bytes") / 1024) + " KiB, oldest " +
                    number("spool.oldestSeconds") + " s";
            const double left = numberOf(values, "spool.remainingSeconds");
            line += left > 0 ? ", empty in " + whole(left) + " s)" : ")";
        }
    }
    line += " | lost " + whole(sumOf(values, countsLoss));
    const double lines = sumOf(values, countsLostLogLines);
    if (lines > 0) {
        line += ", log lines dropped " + whole(lines);
    }
    return line;
}

}  // namespace tools
