// Time from the end of the second in which a tick's collections arrive to the report at the backend client,
// compared with writing that report as text once. Log level 3.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <thread>

#include "json/JsonFields.h"
#include "kyo/Log.h"
#include "report/VlmDataSubmissionControl.h"
#include "report/VlmReportControl.h"
#include "support/CountingOrxClient.h"
#include "support/Pipeline.h"
#include "tests/support/NoConfigurations.h"

namespace {

using namespace vlmBench;
using kyo::Json::StaticString;
using kyo::Json::Value;

constexpr int kSamples = 100;  // in each collection

Value sample(int number) {
    Value pairs(kyo::Json::objectValue);
    pairs[StaticString("type")] = Value(1U);
    pairs[StaticString("messageCounter")] = Value(static_cast<kyo::Json::UInt64>(481516 + number));
    pairs[StaticString("latitude")] = Value(48.1371548 + number * 1e-6);
    pairs[StaticString("longitude")] = Value(11.5753822 - number * 1e-6);
    pairs[StaticString("latitudeValueType")] = Value(0U);
    pairs[StaticString("longitudeValueType")] = Value(0U);
    pairs[StaticString("speed2D")] = Value(27.918 + number * 0.125);
    pairs[StaticString("speed2DValueType")] = Value(0U);
    pairs[StaticString("yawAngle")] = Value(271.4375);
    pairs[StaticString("yawAngleValueType")] = Value(0U);
    Value out(kyo::Json::objectValue);
    out[StaticString("timestamp")] = std::to_string(1773237909000 + number * 10);
    out[StaticString("propertyValuePairs")] = std::move(pairs);
    return out;
}

std::string nameOf(int collector) {
    return "collector" + std::to_string(collector);
}

Value collection(int collector) {
    Value samples(kyo::Json::arrayValue);
    for (int i = 0; i < kSamples; ++i) {
        samples.append(sample(i));
    }
    Value out(kyo::Json::objectValue);
    out[StaticString("collectName")] = nameOf(collector);
    out[StaticString("serviceName")] = "GNSSProxy";
    out[StaticString("resourceName")] = "positions";
    out[StaticString("historyLength")] = kSamples;
    out[StaticString("lagLength")] = 0;
    out[StaticString("index")] = 1;
    out[StaticString("endOfHistory")] = "1773237909990";
    out[StaticString("causeOfSubmit")] = 0;
    out[StaticString("samples")] = std::move(samples);
    return out;
}

vlmProd::VlmDataSubmissionControl& submission() {
    static auto* const control = [] {
        auto* const made = new vlmProd::VlmDataSubmissionControl;
        made->initializeServer("bench", {"VLM"}, std::make_shared<vlmTest::NoConfigurations>());
        made->start();
        while (!CountingClient::instance().started) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        CountingClient::instance().open();
        return made;
    }();
    return *control;
}

/// A report control with one report of `collectors` collectors. The benchmark plays its thread.
std::unique_ptr<vlmProd::VlmReportControl> reportControl(int collectors) {
    haveCatalog();
    auto control = std::make_unique<vlmProd::VlmReportControl>(
        [](vlmProd::Report report) { submission().addReportToShippingQueue(std::move(report)); });
    Value reports(kyo::Json::arrayValue);
    reports[0]["name"] = "report";
    reports[0]["application"] = "bench";
    for (int i = 0; i < collectors; ++i) {
        reports[0]["from"].append(nameOf(i));
    }
    control->initializeReportControl(reports, "bench", "1");
    return control;
}

void tickToReport(benchmark::State& state) {
    auto& client = CountingClient::instance();
    const int collectors = static_cast<int>(state.range(0));
    const auto control = reportControl(collectors);
    submission();
    for (auto _ : state) {
        for (int i = 0; i < collectors; ++i) {
            control->addToReport(collection(i));
        }
        // Let submission control's thread sleep again: an earlier wake-up would be lost.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const auto before = client.count();
        const auto start = CountingClient::Clock::now();
        control->drainOnce();
        const auto end = client.waitFor(before + 1);
        if (!end) {
            state.SkipWithError("the report does not come");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(*end - start).count());
        client.open();  // delivered: the next report may be sent
    }
    state.counters["bytes"] = static_cast<double>(client.reportBytes());
}

void writeReport(benchmark::State& state) {
    const int collectors = static_cast<int>(state.range(0));
    Value report(kyo::Json::objectValue);
    for (int i = 0; i < collectors; ++i) {
        report["signalCollections"].append(collection(i));
    }
    std::size_t bytes = 0;
    for (auto _ : state) {
        const auto start = CountingClient::Clock::now();
        const std::string text = vlmProd::compactText(report);
        const auto end = CountingClient::Clock::now();
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

BENCHMARK(tickToReport)
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->Iterations(8)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(writeReport)
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->Iterations(8)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

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
