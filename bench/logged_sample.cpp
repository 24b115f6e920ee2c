// Processor time of one sample with every message going to a DLT daemon, compared with the floor plus one
// libdlt message of the same length per message. Needs a daemon; bench/run starts a private one.
#include <benchmark/benchmark.h>
#include <dlt/dlt.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/VlmAraLogger.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "log/DltSink.h"
#include "support/Floor.h"
#include "support/Pipeline.h"

namespace {

using namespace vlmBench;

// A rate that the daemon can follow: some 50,000 messages a second.
constexpr int kAtOnce = 8;
constexpr int kBursts = 16;
constexpr auto kPause = std::chrono::milliseconds(12);
constexpr std::size_t kPieceBytes = DLT_USER_BUF_MAX_SIZE - 7;

/// Records the lengths of the log lines of one sample.
class Lengths : public kyo::ProductLogger {
  public:
    void logData(std::string message, kyo::LogLevel /*level*/) override {
        const std::lock_guard lock(m_guard);
        m_lengths.push_back(message.size());
    }
    std::vector<std::size_t> take() {
        const std::lock_guard lock(m_guard);
        return std::exchange(m_lengths, {});
    }
    std::size_t count() {
        const std::lock_guard lock(m_guard);
        return m_lengths.size();
    }

  private:
    std::mutex m_guard;
    std::vector<std::size_t> m_lengths;
};

struct Case {
    std::unique_ptr<Pipeline> road;
    std::vector<std::size_t> messages;
};

/// Finds the messages of a sample. Runs before the real logger is installed.
Case learn(Kind kind, Lengths& lengths) {
    Case one;
    one.road = std::make_unique<Pipeline>(kind, 1, 0);
    for (int i = 0; i < 2; ++i) {  // the second replaces an older one, like all later samples
        const auto settled = [&lengths] {
            for (std::size_t seen = 0, count = lengths.count();; count = lengths.count()) {
                if (count == std::exchange(seen, count) && count != 0) {
                    return;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        };
        lengths.take();
        one.road->burst(1);
        settled();
    }
    one.messages = lengths.take();
    return one;
}

std::uint64_t counter(const char* name) {
    return kyo::Status::counter(name).value();
}

template <typename Burst>
void paced(benchmark::State& state, const Case& one, Burst&& burst) {
    const auto lost = [] { return counter("log.dropped.dlt") + counter("log.dlt.noDaemon"); };
    const auto before = lost();
    try {
        for (auto _ : state) {
            for (int i = 0; i < kBursts; ++i) {
                burst();
                std::this_thread::sleep_for(kPause);
            }
        }
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
        return;
    }
    state.counters["samples"] = kAtOnce * kBursts;
    state.counters["messages"] = static_cast<double>(one.messages.size());
    state.counters["bytes"] = 0;
    for (const std::size_t length : one.messages) {
        state.counters["bytes"] += static_cast<double>(length);
    }
    state.counters["lostMessages"] = static_cast<double>(lost() - before);
}

void pipeline(benchmark::State& state, const Case* one) {
    paced(state, *one, [one] { one->road->burst(kAtOnce); });
}

DltContext& floorContext() {
    static DltContext context;
    static const bool registered = [] {
        return ::dlt_register_context_ll_ts(&context, "FLR", "Floor", DLT_LOG_VERBOSE,
                                            DLT_TRACE_STATUS_OFF) == DLT_RETURN_OK;
    }();
    static_cast<void>(registered);
    return context;
}

void floorWithMessages(benchmark::State& state, const Case* one, const std::vector<std::uint8_t>* datagram,
                       Floor::Build build) {
    const std::string text(*std::max_element(one->messages.begin(), one->messages.end()), 'x');
    std::uint64_t refused = 0;
    paced(state, *one, [&] {
        Floor::run(*datagram, build, kAtOnce);
        for (int i = 0; i < kAtOnce; ++i) {
            for (const std::size_t length : one->messages) {
                for (std::size_t done = 0; done < length; done += kPieceBytes) {
                    DltContextData data{};
                    if (::dlt_user_log_write_start(&floorContext(), &data, DLT_LOG_INFO) != DLT_RETURN_TRUE) {
                        ++refused;
                        continue;
                    }
                    ::dlt_user_log_write_sized_utf8_string(
                        &data, text.data(), static_cast<std::uint16_t>(std::min(kPieceBytes, length - done)));
                    refused += ::dlt_user_log_write_finish(&data) == DLT_RETURN_OK ? 0 : 1;
                }
            }
        }
    });
    state.counters["refused"] = static_cast<double>(refused);
}

/// Logs only to DLT, regardless of the machine's manifest.
void useOwnManifest() {
    std::string name = "/tmp/vlm-bench-manifest-XXXXXX";
    const int file = ::mkstemp(name.data());
    if (file < 0) {
        return;
    }
    ::close(file);
    std::ofstream(name) << R"({"log": {"console": false, "dlt": true, "maxLevel": 7}})";
    ::setenv("VLM_MACHINE_MANIFEST", name.c_str(), 1);
    kyo::Log::setReportingLevel(7);  // reads it
    std::remove(name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    useOwnManifest();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    static Lengths lengths;
    kyo::Log::setProductLogger(&lengths);
    static const Case position = learn(Kind::FullPosition, lengths);
    static const Case notification = learn(Kind::Notification, lengths);
    kyo::Log::setProductLogger(new vlmProd::VlmAraLogger);
    const auto isConnected = [] { return kyo::Status::snapshot()["log"]["dlt"]["connected"].asBool(); };
    for (int looks = 0; !isConnected() && looks < 100; ++looks) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the daemon has just started
    }
    if (!isConnected()) {
        std::fprintf(stderr, "no DLT daemon answers; start one, or name its folder in DLT_PIPE_DIR\n");
        return 1;
    }
    static const auto positionDatagram =
        datagramWith(qdr::services::gnss::kInterface, qdr::services::gnss::kEvent_positions, fullPosition());
    static const auto notificationDatagram = datagramWith(
        qdr::services::airbag::kInterface, qdr::services::airbag::kEvent_notifications, airbagNotification());
    for (auto* one : {benchmark::RegisterBenchmark("positions/floor+messages", floorWithMessages, &position,
                                                   &positionDatagram, Floor::buildPosition),
                      benchmark::RegisterBenchmark("positions/logged", pipeline, &position),
                      benchmark::RegisterBenchmark("notification/floor+messages", floorWithMessages,
                                                   &notification, &notificationDatagram, Floor::buildAirbag),
                      benchmark::RegisterBenchmark("notification/logged", pipeline, &notification)}) {
        one->Iterations(4)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
