// Samples per second through the whole process without a loss. A vehicle in a separate process sends all
// events of all services over loopback sockets; this process is set up like vlmmaster. Losses are reported by
// place. With VLM_BENCH_LEVEL=7 all messages go to a DLT daemon (bench/run starts one), else those of level 3
// and below. VLM_BENCH_LOAD gives a rate and a duration in minutes ("5000 10") instead of rising rates.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ac/com/runtime/component.h"
#include "app/VlmAraLogger.h"
#include "collect/IngressQueue.h"
#include "config/ConfigResponseHandler.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "services/ServiceMapObjectHandler.h"
#include "support/Pipeline.h"
#include "support/Vehicle.h"

namespace {

using namespace vlmBench;
using kyo::Json::Value;

constexpr double kSeconds = 4;  // of each rising rate
constexpr double kMinute = 60;
constexpr std::chrono::seconds kRest{20};
constexpr int kRates[] = {1000, 2000, 5000, 7500, 10'000, 15'000, 20'000, 25'000, 30'000, 40'000};

std::string networkOf(const std::string& address, const std::string& port = "31495") {
    return R"({"address": ")" + address + R"(", "discovery": {"port": )" + port + "}}";
}

// ------------------------------------------------------------------------------------------ the vehicle

/// Executes commands from standard input: "subscribed?" and "send <rate> <seconds>". VLM_BENCH_NETWORK gives
/// another address and discovery port ("127.0.96.2:31496").
int runVehicle() {
    const char* const asked = std::getenv("VLM_BENCH_NETWORK");
    const std::string network = asked != nullptr ? asked : "127.0.97.2:31495";
    const auto colon = network.find(':');
    LoadVehicle vehicle(networkOf(network.substr(0, colon), network.substr(colon + 1)));
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "send") {
            double rate = 0;
            double seconds = 0;
            double took = 0;
            words >> rate >> seconds;
            const auto sent = vehicle.send(rate, seconds, took);
            std::cout << sent << ' ' << took << std::endl;
        } else {
            std::cout << vehicle.isSubscribed() << std::endl;
        }
    }
    return 0;
}

/// The vehicle's process, as seen from this one.
class VehicleProcess {
  public:
    explicit VehicleProcess(const char* program) {
        int toChild[2];
        int fromChild[2];
        if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) {
            throw std::runtime_error("pipe");
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(toChild[0], STDIN_FILENO);
            ::dup2(fromChild[1], STDOUT_FILENO);
            for (const int end : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) {
                ::close(end);
            }
            ::execl(program, program, "--vehicle", nullptr);
            ::_exit(127);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        m_out = ::fdopen(toChild[1], "w");
        m_in = ::fdopen(fromChild[0], "r");
    }
    ~VehicleProcess() { end(); }
    VehicleProcess(const VehicleProcess&) = delete;
    VehicleProcess& operator=(const VehicleProcess&) = delete;

    void end() {
        if (m_pid > 0) {
            std::fclose(m_out);  // the process ends at the end of its input
            std::fclose(m_in);
            ::waitpid(std::exchange(m_pid, -1), nullptr, 0);
        }
    }

    std::string ask(const std::string& what) {
        std::fprintf(m_out, "%s\n", what.c_str());
        std::fflush(m_out);
        std::array<char, 128> line{};
        if (std::fgets(line.data(), line.size(), m_in) == nullptr) {
            throw std::runtime_error("the vehicle does not answer");
        }
        return line.data();
    }

  private:
    pid_t m_pid = -1;
    FILE* m_out = nullptr;
    FILE* m_in = nullptr;
};

// ----------------------------------------------------------------------------------------- this process

void useOwnManifest(int level) {
    std::string name = "/tmp/vlm-bench-manifest-XXXXXX";
    const int file = ::mkstemp(name.data());
    if (file < 0) {
        throw std::runtime_error("no temporary file");
    }
    ::close(file);
    std::ofstream(name) << R"({"log": {"console": false, "dlt": true, "maxLevel": )" << level << "}}";
    ::setenv("VLM_MACHINE_MANIFEST", name.c_str(), 1);
    kyo::Log::setReportingLevel(7);  // reads it
    std::remove(name.c_str());
}

/// One collector for each kind of sample, with history 0: a newer record replaces the older.
std::string writeConfiguration(const std::vector<Stream>& streams) {
    Value config(kyo::Json::objectValue);
    config["CLOCK"][0]["name"] = "clock";
    config["CLOCK"][0]["duration"] = 3'600'000;
    config["REPORT"][0]["name"] = "bench";
    config["REPORT"][0]["application"] = "bench";
    config["REPORT"][0]["from"] = Value(kyo::Json::arrayValue);
    for (const Stream& stream : streams) {
        Value collect(kyo::Json::objectValue);
        collect["name"] = stream.service + "." + stream.resource + "." + std::to_string(stream.index);
        collect["serv"] = stream.service;
        collect["res"] = stream.resource;
        collect["index"] = stream.index;
        collect["history"] = 0;
        collect["on"] = "clock";
        config["COLLECT"].append(collect);
    }
    std::string name = "/tmp/vlm-bench-config-" + std::to_string(::getpid()) + ".json";
    std::ofstream(name) << kyo::Json::FastWriter().write(config);
    return name;
}

/// Connects and subscribes all services at once; the process itself takes seconds for each.
void connect(const std::vector<Stream>& streams, VehicleProcess& vehicle) {
    vlmProd::ConfigResponseHandler& handler = *vlmProd::ConfigResponseHandler::getInstance();
    const std::string file = writeConfiguration(streams);
    const bool done = handler.doBaseSetupFromLocalConfig(file);
    std::remove(file.c_str());
    if (!done) {
        throw std::runtime_error("the benchmark's own configuration is refused");
    }
    std::set<std::string> names;
    for (const Stream& stream : streams) {
        names.insert(stream.service + "Proxy");
    }
    std::vector<std::thread> searches;
    for (const std::string& name : names) {
        searches.emplace_back([name] { vlmProd::ServiceMapObjectHandler::GetInstance()->findService(name); });
    }
    for (auto& search : searches) {
        search.join();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    do {
        handler.subscribeOnce(handler.configuredResources(), [] {});
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("not all events could be subscribed");
        }
    } while (vehicle.ask("subscribed?")[0] != '1');
}

double processSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Processor time of all processes on all processors.
double machineSeconds() {
    std::ifstream file("/proc/stat");
    std::string name;
    double user = 0;
    double nice = 0;
    double system = 0;
    double idle = 0;
    double waiting = 0;
    double interrupts = 0;
    double softInterrupts = 0;
    file >> name >> user >> nice >> system >> idle >> waiting >> interrupts >> softInterrupts;
    return (user + nice + system + interrupts + softInterrupts) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

constexpr const char* kCounters[] = {"samples.received",
                                     "samples.converted",
                                     "records.dispatched",
                                     "records.collected",
                                     "records.expired",
                                     "records.withoutCollector",
                                     "someip.kernelDropped",
                                     "someip.sessionGaps",
                                     "someip.malformed",
                                     "someip.notSubscribed",
                                     "queue.ingress.dropped",
                                     "queue.collector.input.dropped",
                                     "queue.collector.output.dropped",
                                     "threads.failed",
                                     "log.lines",
                                     "log.dropped.dlt"};

using Counts = std::map<std::string, std::uint64_t>;

Counts counts() {
    Counts all;
    for (const char* name : kCounters) {
        all[name] = kyo::Status::counter(name).value();
    }
    return all;
}

/// Waits until nothing arrives any more.
void settle() {
    for (auto before = counts();;) {
        vlmProd::IngressQueue::getInstance()->SendWakeupSignal();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        auto now = counts();
        if (now["records.collected"] == before["records.collected"]) {
            return;
        }
        before = std::move(now);
    }
}

void tellMemory(benchmark::State& state) {
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string name;
        double kib = 0;
        words >> name >> kib;
        if (name == "Rss:" || name == "Pss:" || name == "Anonymous:") {
            state.counters[name.substr(0, name.size() - 1) + "KiB"] = kib;
        }
    }
}

void throughput(benchmark::State& state, VehicleProcess* vehicle, int rate, double seconds) {
    try {
        for (auto _ : state) {
            settle();
            const Counts before = counts();
            const double busyBefore = processSeconds();
            const double machineBefore = machineSeconds();
            std::istringstream answer(
                vehicle->ask("send " + std::to_string(rate) + " " + std::to_string(seconds)));
            const double busy = processSeconds() - busyBefore;
            const double machineBusy = machineSeconds() - machineBefore;
            std::uint64_t sent = 0;
            double took = 0;
            answer >> sent >> took;
            settle();
            state.SetIterationTime(took);
            state.counters["sent"] = static_cast<double>(sent);
            state.counters["rate"] = static_cast<double>(sent) / took;
            state.counters["cores"] = busy / took;
            state.counters["machineCores"] = machineBusy / took;
            const Counts after = counts();
            const auto grown = [&](const std::string& name) {
                return static_cast<double>(after.at(name) - before.at(name));
            };
            for (const char* name : kCounters) {
                if (grown(name) != 0) {
                    state.counters[name] = grown(name);
                }
            }
            tellMemory(state);
            state.counters["lost"] = static_cast<double>(sent) - grown("records.collected");
        }
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
    }
}

/// Everything subscribed, nothing sent: memory and processor time.
void atRest(benchmark::State& state) {
    for (auto _ : state) {
        const double before = processSeconds();
        std::this_thread::sleep_for(kRest);
        state.counters["cores"] = (processSeconds() - before) / std::chrono::duration<double>(kRest).count();
        tellMemory(state);
    }
}

void registerAll(VehicleProcess& vehicle) {
    const auto add = [&](const std::string& name, int rate, double seconds) {
        benchmark::RegisterBenchmark(name.c_str(), throughput, &vehicle, rate, seconds)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kSecond);
    };
    if (const char* const load = std::getenv("VLM_BENCH_LOAD"); load != nullptr) {
        std::istringstream words(load);
        int rate = 0;
        int minutes = 0;
        words >> rate >> minutes;
        for (int minute = 1; minute <= minutes; ++minute) {
            add("load/" + std::to_string(rate) + "/" + std::to_string(minute), rate, kMinute);
        }
        return;
    }
    benchmark::RegisterBenchmark("atRest", atRest)->Iterations(1);
    for (const int rate : kRates) {
        add("throughput/" + std::to_string(rate), rate, kSeconds);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--vehicle") == 0) {
        return runVehicle();
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    const char* const level = std::getenv("VLM_BENCH_LEVEL");
    try {
        VehicleProcess vehicle("/proc/self/exe");
        useOwnManifest(level != nullptr ? std::atoi(level) : 3);
        kyo::Log::setProductLogger(new vlmProd::VlmAraLogger);
        const ac::com::runtime::Component_singleton middleware(false, networkOf("127.0.97.1"));
        haveCatalog();
        connect(allStreams(), vehicle);
        registerAll(vehicle);
        benchmark::RunSpecifiedBenchmarks();
        vehicle.end();
        std::cout.flush();
        // Without destructors: threads of singletons and of the middleware still run.
        std::_Exit(0);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
