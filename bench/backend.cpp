/// The backend client alone, between recorded envelopes and a broker: bench/offline.py gives it a manifest,
/// the envelopes, and the other end.
///
///     bench_backend send ENVELOPES COUNT   sends COUNT of them in turn, and waits until they have arrived
///     bench_backend take                   a backend that names each envelope in its result, and does
///                                          nothing else
///
/// Both print lines of JSON, and read a line where they wait for the caller.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "backend/Compression.h"
#include "backend/MqttConnection.h"
#include "backend/MqttTransport.h"
#include "kyo/OrxClient.h"
#include "kyo/Status.h"
#include "machine/Manifest.h"

namespace {

using kyo::Json::Value;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit{600};
constexpr std::chrono::milliseconds kLook{2};
constexpr int kWarmUp = 50;

double residentMib() {
    std::ifstream statm("/proc/self/statm");
    double size = 0;
    double resident = 0;
    statm >> size >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20);
}

double processorMs() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

void print(const Value& line) {
    std::cout << kyo::Json::FastWriter().write(line) << '\n' << std::flush;
}

class Sender {
  public:
    explicit Sender(const std::string& file) : m_client("Catalog 1", {"VLMReport"}) {
        std::ifstream lines(file);
        for (std::string line; std::getline(lines, line);) {
            kyo::Json::Reader().parse(line, m_envelopes.emplace_back(), false);
            m_textBytes.push_back(line.size());
        }
        m_client.registerMasterControlCallback([this](const Value&) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_controls;
            m_changed.notify_all();
        });
        m_client.registerConfigResponseCallback([](const Value&) {});
    }

    bool run(std::uint64_t count) {
        const bool isSpooled = machine::manifest().backend.spool.has_value();
        m_client.start();
        if (!isSpooled && !awaitControls(1)) {
            return false;
        }
        Value line(kyo::Json::objectValue);
        double cpu = 0;
        double text = 0;
        for (std::uint64_t i = 0; i < kWarmUp + count; ++i) {
            if (i == kWarmUp) {
                cpu = processorMs();
                line["residentMibAtFirst"] = m_most = residentMib();
            }
            const std::size_t at = i % m_envelopes.size();
            Value& envelope = m_envelopes[at];
            envelope["messageId"] = "bench-" + std::to_string(::getpid()) + '-' + std::to_string(i);
            const std::uint64_t before = controls();
            if (!sendOne(envelope) || !awaitControls(before + 1)) {
                return false;
            }
            text += i < kWarmUp ? 0.0 : static_cast<double>(m_textBytes[at]);
            if (i % 16 == 0) {
                m_most = std::max(m_most, residentMib());
            }
        }
        line["textMb"] = text / 1e6;
        line["residentMibMost"] = m_most;
        line["processorMs"] = processorMs() - cpu;
        line["spool"] = kyo::Status::snapshot()["spool"];
        print(line);
        return !isSpooled || drain(cpu, text);
    }

  private:
    bool sendOne(const Value& envelope) {
        // Before the spool is open, an envelope waits in memory and is answered then.
        const auto end = Clock::now() + kLimit;
        while (m_client.SendOrxData(envelope) != 0) {
            if (Clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(kLook);
        }
        return true;
    }

    /// The time is that from the first delivery to the last.
    bool drain(double cpu, double text) {
        kyo::Counter& delivered = kyo::Status::counter("spool.delivered");
        kyo::Counter& stored = kyo::Status::counter("spool.stored");
        const auto end = Clock::now() + kLimit;
        const std::uint64_t already = delivered.value();
        Clock::time_point first = Clock::now();
        while (delivered.value() < stored.value()) {
            if (delivered.value() == already) {
                first = Clock::now();
            }
            if (Clock::now() > end) {
                return false;
            }
            m_most = std::max(m_most, residentMib());
            std::this_thread::sleep_for(kLook);
        }
        const std::chrono::duration<double> took = Clock::now() - first;
        Value line(kyo::Json::objectValue);
        line["seconds"] = took.count();
        line["residentMibMost"] = m_most;
        line["processorMs"] = processorMs() - cpu;
        line["stored"] = static_cast<kyo::Json::UInt64>(stored.value());
        line["share"] = static_cast<double>(stored.value() - already) / static_cast<double>(stored.value());
        line["textMb"] = text / 1e6;
        print(line);
        return true;
    }

    std::uint64_t controls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_controls;
    }
    bool awaitControls(std::uint64_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kLimit, [&] { return m_controls >= count; });
    }

    std::vector<Value> m_envelopes;
    std::vector<std::size_t> m_textBytes;
    double m_most = 0;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_controls = 0;  ///< guarded by m_mutex
    kyo::OrxClient m_client;
};

/// Reads no JSON: in an envelope's text, whose members are sorted, the first "messageId" is its own.
class Taker {
  public:
    Taker()
        : m_settings(machine::manifest().backend.mqtt),
          m_prefix(kyo::orx::topicPrefix(m_settings)),
          m_connection(
              m_settings, "taker", {m_prefix + "/status", m_prefix + "/data/#"}, {},
              {[] {},
               [this](const std::string& topic, const std::string& payload, bool) { take(topic, payload); },
               [](int, int) {}, [](int, const std::string&) {}}) {
        m_dictionaries.addBuiltIn();
    }

    void run() {
        m_connection.start();
        std::string line;
        std::getline(std::cin, line);
        m_connection.stop();
        Value result(kyo::Json::objectValue);
        result["arrived"] = static_cast<kyo::Json::UInt64>(m_ids.size());
        result["again"] = static_cast<kyo::Json::UInt64>(m_again);
        print(result);
    }

  private:
    void take(const std::string& topic, const std::string& payload) {
        if (topic.ends_with("/status")) {
            answer(payload.find("online") != std::string::npos ? "" : "-");
            return;
        }
        const bool isZstd = topic.find("/data/zstd") != std::string::npos;
        std::string error;
        if (!kyo::orx::decompress(isZstd ? kyo::orx::Encoding::Zstd : kyo::orx::Encoding::Plain, payload,
                                  m_text, error, kyo::orx::kLargestText, m_dictionaries)) {
            std::cerr << topic << ": " << error << '\n';
            return;
        }
        constexpr std::string_view kName = "\"messageId\":\"";
        const auto from = m_text.find(kName) + kName.size();
        const std::string id = m_text.substr(from, m_text.find('"', from) - from);
        m_again += m_ids.insert(id).second ? 0 : 1;
        answer(id);
    }
    void answer(const std::string& id) {
        Value control(kyo::Json::objectValue);
        control["eventTicket"] = "bench";
        control["permittedDataType"][0] = "VLMReport";
        control["backendChannelControl"] = 0;
        control["dataDeliveryResult"] = 0;
        if (!id.empty()) {
            control["messageId"] = id;
        }
        std::string error;
        if (m_connection.publish(m_prefix + "/mastercontrol", kyo::Json::FastWriter().write(control), false,
                                 0, error) != 0) {
            std::cerr << error << '\n';
        }
    }

    const machine::MqttBackend& m_settings;
    const std::string m_prefix;
    std::string m_text;
    kyo::orx::Dictionaries m_dictionaries;
    std::set<std::string> m_ids;
    std::uint64_t m_again = 0;
    kyo::orx::MqttConnection m_connection;
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 1 && arguments[0] == "take") {
        Taker().run();
        return 0;
    }
    if (arguments.size() == 3 && arguments[0] == "send") {
        return Sender(arguments[1]).run(std::stoull(arguments[2])) ? 0 : 1;
    }
    std::cerr << "bench_backend send ENVELOPES COUNT | take\n";
    return 2;
}
