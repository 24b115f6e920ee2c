#include "tools/state/Metrics.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <map>

#include "tools/state/StatusText.h"

namespace tools {

namespace {

using kyo::Json::Value;

/// How a status name ends, how the metric's name does, and the factor between their units.
struct Unit {
    std::string_view ending;
    std::string_view base;
    double factor;
};
constexpr std::array<Unit, 4> kUnits{Unit{"Ms", "seconds", 0.001}, Unit{"Seconds", "seconds", 1},
                                     Unit{"KiB", "bytes", 1024}, Unit{"bytes", "bytes", 1}};

std::string numberText(double number) {
    if (std::isinf(number)) {
        return number > 0 ? "+Inf" : "-Inf";
    }
    char text[64];
    constexpr double kWhole = 1e15;
    const auto end = number == std::floor(number) && std::abs(number) < kWhole
                         ? std::to_chars(text, text + sizeof text, static_cast<std::int64_t>(number)).ptr
                         : std::to_chars(text, text + sizeof text, number, std::chars_format::general).ptr;
    return {text, end};
}

/// "someip.tp.kernelDropped" becomes vlm_someip_tp_kernel_dropped.
std::string metricName(std::string_view name) {
    std::string metric = "vlm_";
    for (const char c : name) {
        if (std::isupper(static_cast<unsigned char>(c)) != 0) {
            metric += '_';
            metric += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else {
            metric += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
        }
    }
    return metric;
}

std::string labelText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        }
    }
    return escaped;
}

class Writer {
  public:
    explicit Writer(MetricFormat format) : m_format(format) {}

    void family(const std::string& name, std::string_view kind, std::string_view unit,
                std::string_view help) {
        const bool open = m_format == MetricFormat::OpenMetrics;
        // OpenMetrics knows a counter by its name without _total, and infos; the older format knows neither.
        const std::string subject = name + (open                ? ""
                                            : kind == "counter" ? "_total"
                                            : kind == "info"    ? "_info"
                                                                : "");
        m_text += "# TYPE " + subject + ' ';
        m_text += kind == "info" && !open ? "gauge" : kind;
        m_text += '\n';
        if (open && !unit.empty()) {
            m_text += "# UNIT " + subject + ' ';
            m_text += unit;
            m_text += '\n';
        }
        if (!help.empty()) {
            m_text += "# HELP " + subject + ' ';
            m_text += help;
            m_text += '\n';
        }
    }
    void sample(const std::string& name, const std::string& labels, double value) {
        m_text += name + labels + ' ' + numberText(value) + '\n';
    }
    std::string finish() { return m_format == MetricFormat::OpenMetrics ? m_text + "# EOF\n" : m_text; }

  private:
    MetricFormat m_format;
    std::string m_text;
};

void addHistogram(Writer& out, const std::string& metric, const Value& value, std::string_view help) {
    out.family(metric, "histogram", "seconds", help);
    double count = 0;
    for (const Value& bucket : value["buckets"]) {
        count += bucket[1].asDouble();
        const double limit = bucket[0].isNumeric() ? bucket[0].asDouble() : INFINITY;
        out.sample(metric + "_bucket", "{le=\"" + numberText(limit) + "\"}", count);
    }
    out.sample(metric + "_sum", "", value["sumSeconds"].isNumeric() ? value["sumSeconds"].asDouble() : 0);
    out.sample(metric + "_count", "", count);
}

void addNumber(Writer& out, const std::string& name, const Value& value, const MetricDescription* known) {
    std::string metric = metricName(name);
    std::string_view base;
    double factor = 1;
    for (const Unit& unit : kUnits) {
        if (name.ends_with(unit.ending)) {
            base = unit.base;
            factor = unit.factor;
            metric = metricName(name.substr(0, name.size() - unit.ending.size()));
            metric += (metric.ends_with('_') ? "" : "_") + std::string(base);
            break;
        }
    }
    const double number = value.isBool() ? (value.asBool() ? 1 : 0) : value.asDouble() * factor;
    const bool counter = known != nullptr && known->kind == MetricKind::Counter;
    out.family(metric, counter ? "counter" : "gauge", base, known != nullptr ? known->help : "");
    out.sample(counter ? metric + "_total" : metric, "", number);
}

}  // namespace

std::string metricsText(const Value& snapshot, MetricFormat format) {
    const auto& described = metricDescriptions();
    Writer out(format);
    out.family("vlm_up", "gauge", "", "whether vlmmaster answers");
    auto values = flatten(snapshot);
    out.sample("vlm_up", "", values.empty() ? 0 : 1);
    // A counter exists from its first step on; an alert on its growth needs the 0 before.
    for (const MetricDescription& row : described) {
        if (row.kind == MetricKind::Counter && !values.empty()) {
            values.try_emplace(std::string(row.name), 0);
        }
    }
    std::string labels;
    for (const auto& [name, value] : values) {
        const auto at = std::lower_bound(
            described.begin(), described.end(), name,
            [](const MetricDescription& row, const std::string& wanted) { return row.name < wanted; });
        const MetricDescription* const known = at != described.end() && at->name == name ? &*at : nullptr;
        if (value.isString()) {
            const std::string label = metricName(name).substr(4);
            labels += (labels.empty() ? "" : ",") + label + "=\"" + labelText(value.asString()) + '"';
        } else if (isHistogram(value)) {
            addHistogram(out, metricName(name) + "_seconds", value, known != nullptr ? known->help : "");
        } else if (value.isNumeric() || value.isBool()) {
            addNumber(out, name, value, known);
        }
    }
    if (!labels.empty()) {
        out.family("vlm", "info", "", "what runs");
        out.sample("vlm_info", "{" + labels + "}", 1);
    }
    return out.finish();
}

}  // namespace tools
