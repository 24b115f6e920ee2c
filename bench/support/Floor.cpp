#include "support/Floor.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "base/DetachedThread.h"
#include "kyo/DateTime.h"
#include "services/adapters/RecordWriter.h"
#include "services/adapters/VLMGNSS.h"
#include "services/adapters/VLMRouteBasedConsumption.h"
#include "support/Pipeline.h"

namespace vlmBench {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

Value commonMembers(const char* service, const char* event) {
    Value record(kyo::Json::objectValue);
    record[StaticString("timestamp")] =
        Value(static_cast<kyo::Json::UInt64>(kyo::DateTime::getCurrentTimeMs()));
    record[StaticString("serviceName")] = Value(StaticString(service));
    record[StaticString("resName")] = Value(StaticString(event));
    return record;
}

void addCollector(Value& record, int index) {
    record[StaticString("collectorName")] = Value(StaticString("collector000"));
    record[StaticString("index")] = Value(index);
}

template <class DT>
DT decoded(std::span<const std::uint8_t> payload) {
    std::vector<DT> samples;
    someip::DecodeReport report;
    if (!someip::decodeSamples(payload, samples, report) || samples.size() != 1) {
        throw std::runtime_error("the benchmark's own sample cannot be decoded");
    }
    return std::move(samples.front());
}

}  // namespace

Value positionRecord(const Position& sample) {
    static vlmProd::VLMGNSS adapter("GNSSProxy");
    Value record = commonMembers("GNSSProxy", "positions");
    const auto key = vlmProd::putKey(record, StaticString("type"), sample.type);
    adapter.callback_positions_idx_1(sample, record);
    addCollector(record, static_cast<int>(key.value_or(0)));
    return record;
}

Value consumptionRecord(const Consumption& sample) {
    static vlmProd::VLMRouteBasedConsumption adapter("RouterBasedConsumptionProxy");
    Value record = commonMembers("RouterBasedConsumptionProxy", "consumptionValues");
    const auto key = vlmProd::putKey(record, StaticString("elementId"), sample.elementId);
    adapter.callback_consumptionValues_idx_1(sample, record);
    addCollector(record, static_cast<int>(key.value_or(0)));
    return record;
}

Value airbagRecord(const AirbagNotification& sample) {
    Value record = commonMembers("AirbagProxy", "notifications");
    vlmProd::putField(record, StaticString("type"), sample.type);
    addCollector(record, static_cast<int>(*sample.type));
    return record;
}

Value Floor::buildPosition(std::span<const std::uint8_t> payload) {
    return positionRecord(decoded<Position>(payload));
}

Value Floor::buildAirbag(std::span<const std::uint8_t> payload) {
    return airbagRecord(decoded<AirbagNotification>(payload));
}

void Floor::run(const std::vector<std::uint8_t>& datagram, Build build, int samples) {
    static std::atomic<int> finished{0};
    static std::atomic<std::size_t> written{0};
    finished = 0;
    for (int started = 0; started < samples;) {
        for (int i = 0; i < kBurst && started < samples; ++i, ++started) {
            Value record = build(std::span(datagram).subspan(someip::kHeaderSize));
            written += kyo::Json::FastWriter().write(record).size();
            // The thread destroys the record, as if a newer one replaced it.
            vlmProd::startDetached([mine = std::move(record)] { finished.fetch_add(1); });
        }
        while (finished.load() < started) {
            std::this_thread::sleep_for(kPollInterval);
        }
    }
}

}  // namespace vlmBench
