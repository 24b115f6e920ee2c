// The sample path without threads, one sample at a time. bench/counting.py counts the instructions inside
// countedSample() with callgrind. The program itself counts the heap allocations there, and prints those of
// one sample. Arguments: kind of sample, log level, number of samples, number of collectors, their history in
// ms.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kyo/Log.h"
#include "support/Pipeline.h"

namespace {

std::atomic<std::uint64_t> allocations{0};

/// Discards the composed lines.
class Discard : public kyo::ProductLogger {
  public:
    void logData(std::string /*message*/, kyo::LogLevel /*level*/) override {}
};

}  // namespace

// Replace those of the C library, also for the libraries. aligned_alloc() and the like are not counted.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}

/// From datagram to output queue. Counting is limited to the function of this name.
__attribute__((noinline)) void countedSample(vlmBench::Pipeline& road) {
    road.sampleByHand();
}
}

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("usage: sample_path positions|notifications LEVEL SAMPLES COLLECTORS HISTORY\n", stderr);
        return 2;
    }
    static Discard discard;
    kyo::Log::setProductLogger(&discard);
    kyo::Log::setReportingLevel(std::atoi(argv[2]));
    const auto kind =
        std::strcmp(argv[1], "positions") == 0 ? vlmBench::Kind::FullPosition : vlmBench::Kind::Notification;
    const int samples = std::atoi(argv[3]);
    const int collectors = std::atoi(argv[4]);
    vlmBench::Pipeline road(kind, collectors, std::atoll(argv[5]), vlmBench::Threads::None);
    for (int i = 0; i < 2 * collectors; ++i) {
        road.sampleByHand();  // one-time work
    }
    const auto before = allocations.load();
    for (int i = 0; i < samples; ++i) {
        countedSample(road);
    }
    std::printf("%.2f allocations\n", static_cast<double>(allocations.load() - before) / samples);
    return 0;
}
