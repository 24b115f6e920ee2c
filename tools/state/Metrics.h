#pragma once
/// A status snapshot as metrics.
#include <string>
#include <string_view>
#include <vector>

#include "kyo/Json.h"

namespace tools {

enum class MetricKind { Counter, Gauge, Histogram, Text };

/// A row of docs/status.md.
struct MetricDescription {
    std::string_view name;
    MetricKind kind;
    std::string_view help;
};

/// All rows, by name. Generated.
const std::vector<MetricDescription>& metricDescriptions();

enum class MetricFormat {
    OpenMetrics,  ///< application/openmetrics-text
    Prometheus    ///< text/plain; version=0.0.4
};

/// The snapshot's values, in base units: "clock.durationMs" is vlm_clock_duration_seconds. Texts become
/// labels of vlm_info. Counters that have not counted yet are 0. Values that docs/status.md does not have, of
/// a newer vlmmaster, are gauges without a help text. An empty snapshot, of a vlmmaster that does not answer,
/// gives only vlm_up 0.
std::string metricsText(const kyo::Json::Value& snapshot, MetricFormat format);

}  // namespace tools
