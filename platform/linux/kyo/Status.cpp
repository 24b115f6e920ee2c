#include "kyo/Status.h"

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "kyo/Histogram.h"

namespace kyo {

namespace {

using Gauge = std::function<Json::Value()>;

struct Registry {
    std::mutex guard;  ///< guards the maps; never locked while a gauge is read
    std::map<std::string, std::unique_ptr<Counter>> counters;
    std::map<std::string, std::unique_ptr<Histogram>> histograms;
    std::map<std::string, std::shared_ptr<const Gauge>> gauges;
};

Registry& registry() {
    // Never destroyed: threads that run until the process ends use the counters.
    static auto* const instance = new Registry;
    return *instance;
}

/// The value of this name, which is created on first use.
template <typename T>
T& findIn(std::map<std::string, std::unique_ptr<T>> Registry::*map, const std::string& name) {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.guard);
    auto& slot = (all.*map)[name];
    if (slot == nullptr) {
        slot = std::make_unique<T>();
    }
    return *slot;
}

/// Sets the value at its dotted name. If a name is both a value and a group ("a" and "a.b"), the value
/// becomes the group's member "value".
void place(Json::Value& root, const std::string& name, Json::Value value) {
    Json::Value* node = &root;
    for (std::size_t from = 0; from <= name.size();) {
        const auto dot = std::min(name.find('.', from), name.size());
        if (!node->isNull() && !node->isObject()) {
            Json::Value group(Json::objectValue);
            group["value"].swap(*node);
            node->swap(group);
        }
        node = &(*node)[name.substr(from, dot - from)];
        from = dot + 1;
    }
    if (!node->isObject()) {
        node->swap(value);
    } else if (value.isObject()) {
        for (auto member = value.begin(); member != value.end(); ++member) {
            (*node)[member.name()] = *member;
        }
    } else {
        (*node)["value"].swap(value);
    }
}

Json::Value readGauge(const Gauge& gauge) {
    try {
        return gauge();
    } catch (const std::exception&) {
        return {};
    }
}

}  // namespace

Json::Value Histogram::value() const {
    Json::Value buckets(Json::arrayValue);
    for (std::size_t i = 0; i < m_counts.size(); ++i) {
        Json::Value bucket(Json::arrayValue);
        bucket.append(i < kLimits.size() ? Json::Value(static_cast<double>(kLimits[i]) / 1e6)
                                         : Json::Value());
        bucket.append(static_cast<Json::UInt64>(m_counts[i].load(std::memory_order_relaxed)));
        buckets.append(std::move(bucket));
    }
    Json::Value value(Json::objectValue);
    value["buckets"] = std::move(buckets);
    value["sumSeconds"] = static_cast<double>(m_sumUs.load(std::memory_order_relaxed)) / 1e6;
    return value;
}

Counter& Status::counter(const std::string& name) {
    return findIn(&Registry::counters, name);
}

Histogram& Histogram::get(const std::string& name) {
    return findIn(&Registry::histograms, name);
}

void Status::gauge(const std::string& name, std::function<Json::Value()> read) {
    auto entry = std::make_shared<const Gauge>(std::move(read));
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.guard);
    all.gauges[name].swap(entry);
}

std::map<std::string, std::uint64_t> Status::counters() {
    std::map<std::string, std::uint64_t> counts;
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.guard);
    for (const auto& [name, counter] : all.counters) {
        counts.emplace_hint(counts.end(), name, counter->value());
    }
    return counts;
}

Json::Value Status::snapshot() {
    const auto counts = counters();
    std::vector<std::pair<std::string, std::shared_ptr<const Gauge>>> gauges;
    std::vector<std::pair<std::string, const Histogram*>> histograms;
    {
        Registry& all = registry();
        const std::lock_guard<std::mutex> lock(all.guard);
        for (const auto& [name, histogram] : all.histograms) {
            histograms.emplace_back(name, histogram.get());
        }
        gauges.assign(all.gauges.begin(), all.gauges.end());
    }
    // Outside the lock: gauges may take locks of their own.
    Json::Value root(Json::objectValue);
    for (const auto& [name, count] : counts) {
        place(root, name, Json::Value(static_cast<Json::UInt64>(count)));
    }
    for (const auto& [name, histogram] : histograms) {
        place(root, name, histogram->value());
    }
    for (const auto& [name, gauge] : gauges) {
        place(root, name, readGauge(*gauge));
    }
    return root;
}

}  // namespace kyo
