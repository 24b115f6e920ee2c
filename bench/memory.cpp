// Heap memory of one waiting record of 41 members, compared with the length of its text.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>

#include "collect/CollectorImpl.h"
#include "collect/IngressQueue.h"
#include "json/JsonFields.h"
#include "kyo/Log.h"
#include "support/Floor.h"

namespace {

using namespace vlmBench;

constexpr int kRecords = 20'000;

std::size_t heapInUse() {
    return ::mallinfo2().uordblks;
}

/// A fused position before its collector is known: 4 common members, 37 fields.
kyo::Json::Value recordOf41() {
    kyo::Json::Value record = positionRecord(fullPosition());
    record.removeMember("collectorName");
    record.removeMember("index");
    return record;
}

template <typename Put>
void measure(benchmark::State& state, Put&& put) {
    const kyo::Json::Value record = recordOf41();
    if (record.size() != 41) {
        state.SkipWithError("the record has not 41 members");
        return;
    }
    double each = 0;
    for (auto _ : state) {
        each = put();
    }
    state.counters["heapBytes"] = each;
    state.counters["textBytes"] = static_cast<double>(vlmProd::compactText(record).size());
}

/// In a collector's output queue.
void outputQueue(benchmark::State& state) {
    measure(state, [] {
        vlmProd::CollectorImpl collector("bench", 1, "GNSS", "positions", 1, "clock",
                                         vlmProd::CollectorOnEventType::Clock);
        collector.insertRecord(vlmProd::Record(recordOf41()));  // one-time allocations
        const std::size_t before = heapInUse();
        for (int i = 0; i < kRecords; ++i) {
            collector.insertRecord(vlmProd::Record(recordOf41()));
        }
        return static_cast<double>(heapInUse() - before) / kRecords;
    });
}

/// In the ingress queue.
void ingressQueue(benchmark::State& state) {
    measure(state, [] {
        vlmProd::IngressQueue queue;
        queue.insertRecord(vlmProd::Record(recordOf41()));
        const std::size_t before = heapInUse();
        for (int i = 0; i < kRecords; ++i) {
            queue.insertRecord(vlmProd::Record(recordOf41()));
        }
        return static_cast<double>(heapInUse() - before) / kRecords;
    });
}

BENCHMARK(outputQueue)->Iterations(1);
BENCHMARK(ingressQueue)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    kyo::Log::setReportingLevel(3);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
