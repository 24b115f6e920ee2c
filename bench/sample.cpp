// Processor time of one sample from datagram to output queue, compared with the floor, with log level 3.
// Counts all threads of the process.
#include <benchmark/benchmark.h>

#include <exception>
#include <map>
#include <memory>

#include "kyo/Log.h"
#include "support/Floor.h"
#include "support/Pipeline.h"

namespace {

using namespace vlmBench;
using kyo::Json::Value;

constexpr int kSamples = 512;  // of one iteration

/// Measures `iterate`, which processes kSamples samples.
template <typename Iterate>
void measure(benchmark::State& state, Iterate&& iterate) {
    try {
        for (auto _ : state) {
            iterate();
        }
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
        return;
    }
    state.counters["samples"] = kSamples;
}

void positionFloor(benchmark::State& state) {
    const auto datagram =
        datagramWith(qdr::services::gnss::kInterface, qdr::services::gnss::kEvent_positions, fullPosition());
    measure(state, [&] { Floor::run(datagram, Floor::buildPosition, kSamples); });
}

void airbagFloor(benchmark::State& state) {
    const auto datagram = datagramWith(qdr::services::airbag::kInterface,
                                       qdr::services::airbag::kEvent_notifications, airbagNotification());
    measure(state, [&] { Floor::run(datagram, Floor::buildAirbag, kSamples); });
}

/// Only the conversion: builds a record from the structure and destroys it.
template <typename Sample>
void conversion(benchmark::State& state, const Sample& sample, Value (*record)(const Sample&)) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(record(sample));
    }
}

void pipeline(benchmark::State& state, Kind kind) {
    // Kept for the next repetition, since the process keeps its collectors.
    static std::map<Kind, std::unique_ptr<Pipeline>> roads;
    auto& road = roads[kind];
    if (!road) {
        road = std::make_unique<Pipeline>(kind, 1, 0);
    }
    road->run(kSamples);
    const auto lost = Pipeline::lost();
    measure(state, [&] { road->run(kSamples); });
    state.counters["lost"] = static_cast<double>(Pipeline::lost() - lost);
    Pipeline::drain();
}

[[maybe_unused]] const int registered = [] {
    for (auto* one : {benchmark::RegisterBenchmark("positions/floor", positionFloor),
                      benchmark::RegisterBenchmark("positions/pipeline", pipeline, Kind::FullPosition),
                      benchmark::RegisterBenchmark("notification/floor", airbagFloor),
                      benchmark::RegisterBenchmark("notification/pipeline", pipeline, Kind::Notification)}) {
        one->Iterations(16)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("conversion/positions", conversion<Position>, fullPosition(),
                                 positionRecord);
    benchmark::RegisterBenchmark("conversion/consumptionValues", conversion<Consumption>, consumption(),
                                 consumptionRecord);
    benchmark::RegisterBenchmark("conversion/notification", conversion<AirbagNotification>,
                                 airbagNotification(), airbagRecord);
    return 0;
}();

}  // namespace

int main(int argc, char** argv) {
    kyo::Log::setReportingLevel(3);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
