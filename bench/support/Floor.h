#pragma once
/// The minimal work for a sample: decode the structure, build one record, write it as text once, start one
/// thread. The benchmarks compare the pipeline with it.
#include <cstdint>
#include <span>
#include <vector>

#include "kyo/Json.h"
#include "support/Samples.h"

namespace vlmBench {

/// A record as the adapters build it, completed for one collector.
kyo::Json::Value positionRecord(const Position& sample);
kyo::Json::Value airbagRecord(const AirbagNotification& sample);
kyo::Json::Value consumptionRecord(const Consumption& sample);

class Floor {
  public:
    using Build = kyo::Json::Value (*)(std::span<const std::uint8_t> payload);

    /// Does this for `samples` equal datagrams, in bursts, and waits for the threads.
    static void run(const std::vector<std::uint8_t>& datagram, Build build, int samples);

    static kyo::Json::Value buildPosition(std::span<const std::uint8_t> payload);
    static kyo::Json::Value buildAirbag(std::span<const std::uint8_t> payload);
};

}  // namespace vlmBench
