// The sample path without threads, one sample at a time. bench/check-instructions counts the instructions
// inside countedSample(). Arguments: kind of sample, log level, number of samples.
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "kyo/Log.h"
#include "support/Pipeline.h"

namespace {

/// Discards the composed lines.
class Discard : public kyo::ProductLogger {
  public:
    void logData(std::string /*message*/, kyo::LogLevel /*level*/) override {}
};

}  // namespace

/// From datagram to output queue. Counting is limited to the function of this name.
extern "C" __attribute__((noinline)) void countedSample(vlmBench::Pipeline& road) {
    road.sampleByHand();
}

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: sample_path positions|notification LEVEL SAMPLES\n";
        return 2;
    }
    static Discard discard;
    kyo::Log::setProductLogger(&discard);
    kyo::Log::setReportingLevel(std::atoi(argv[2]));
    const auto kind =
        std::strcmp(argv[1], "positions") == 0 ? vlmBench::Kind::FullPosition : vlmBench::Kind::Notification;
    vlmBench::Pipeline road(kind, 1, 0, vlmBench::Threads::None);
    road.sampleByHand();  // one-time work
    road.sampleByHand();
    for (int i = 0; i < std::atoi(argv[3]); ++i) {
        countedSample(road);
    }
    return 0;
}
