/// vlm-backend: the bench's backend behind an MQTT broker. docs/mqtt.md describes the topics.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <cxxopts.hpp>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "backend/MqttConnection.h"
#include "backend/MqttTransport.h"
#include "kyo/WakeFd.h"
#include "machine/Manifest.h"
#include "backend/Backend.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::mutex outputMutex;

void print(const std::string& line) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::localtime_r(&now, &parts);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S ", &parts);
    const std::lock_guard<std::mutex> lock(outputMutex);
    std::cout << text << line << std::endl;  // flushed: somebody may watch through a pipe
}

struct Options {
    machine::MqttBackend mqtt;
    std::string prefix;
    std::string import;
    vlmBackend::Settings backend;
};

cxxopts::Options describeOptions() {
    cxxopts::Options options("vlm-backend", "The bench's backend: serves vehicles through an MQTT broker.");
    auto add = options.add_options();
    add("host", "broker", cxxopts::value<std::string>()->default_value("127.0.0.1"));
    add("port", "its port", cxxopts::value<std::uint16_t>()->default_value("1883"));
    add("prefix", "topic prefix; vlm/<host name> without it, vlm/+ for all vehicles",
        cxxopts::value<std::string>()->default_value(""));
    add("user", "user name", cxxopts::value<std::string>()->default_value(""));
    add("password", "password; better in the environment variable VLM_BACKEND_PASSWORD",
        cxxopts::value<std::string>()->default_value(""));
    add("tls", "TLS with verification of the broker");
    add("ca", "certificate authority, PEM; the system's without it",
        cxxopts::value<std::string>()->default_value(""));
    add("cert", "own certificate, PEM", cxxopts::value<std::string>()->default_value(""));
    add("key", "its key, PEM", cxxopts::value<std::string>()->default_value(""));
    add("config", "collector configuration to serve", cxxopts::value<std::string>()->default_value(""));
    add("store", "file for the envelopes, as JSON Lines", cxxopts::value<std::string>()->default_value(""));
    add("results",
        "delivery results, one per envelope, the last one for all further: 0 delivered, 1 send again, 2 "
        "stop, - no answer",
        cxxopts::value<std::string>()->default_value("0"));
    add("types", "permitted data types, comma-separated; what the vehicle offers without it",
        cxxopts::value<std::vector<std::string>>()->default_value(""));
    add("answer-after", "milliseconds before a result", cxxopts::value<unsigned>()->default_value("0"));
    add("reopen-after", "milliseconds from a result other than 0 to the opening message",
        cxxopts::value<unsigned>()->default_value("1000"));
    add("closed", "start with a closed channel");
    add("unnamed", "results do not say which envelope they belong to");
    add("import", "take the envelopes of that file, which vlm-spool has exported, and end",
        cxxopts::value<std::string>()->default_value(""));
    add("h,help", "this text");
    return options;
}

/// Nothing when the program has said all there is to say; `status` is then the exit status.
std::optional<Options> readOptions(int argc, char** argv, int& status) {
    cxxopts::Options described = describeOptions();
    try {
        const auto given = described.parse(argc, argv);
        status = 0;
        if (given.count("help") != 0) {
            std::cout
                << described.help()
                << "\nSIGUSR1 or the line \"open\" opens the channel, SIGUSR2 or \"close\" closes it.\n";
            return std::nullopt;
        }
        Options out;
        out.mqtt.host = given["host"].as<std::string>();
        out.mqtt.port = given["port"].as<std::uint16_t>();
        out.mqtt.user = given["user"].as<std::string>();
        out.mqtt.password = given["password"].as<std::string>();
        const char* const secret = std::getenv("VLM_BACKEND_PASSWORD");
        if (out.mqtt.password.empty() && secret != nullptr) {
            out.mqtt.password = secret;
        }
        out.mqtt.caFile = given["ca"].as<std::string>();
        out.mqtt.certFile = given["cert"].as<std::string>();
        out.mqtt.keyFile = given["key"].as<std::string>();
        out.mqtt.tls = given.count("tls") != 0 || !out.mqtt.caFile.empty() || !out.mqtt.certFile.empty();
        out.mqtt.prefix = given["prefix"].as<std::string>();
        out.mqtt.reconnectMaxSeconds = 5;  // somebody waits at the bench
        out.prefix = kyo::orx::topicPrefix(out.mqtt);
        out.backend.configuration = given["config"].as<std::string>();
        out.backend.store = given["store"].as<std::string>();
        out.backend.open = given.count("closed") == 0;
        out.backend.namesEnvelopes = given.count("unnamed") == 0;
        out.import = given["import"].as<std::string>();
        out.backend.answerAfter = milliseconds(given["answer-after"].as<unsigned>());
        out.backend.reopenAfter = milliseconds(given["reopen-after"].as<unsigned>());
        for (const std::string& type : given["types"].as<std::vector<std::string>>()) {
            if (!type.empty()) {
                out.backend.permitted.push_back(type);
            }
        }
        if (!vlmBackend::readResults(given["results"].as<std::string>(), out.backend.results)) {
            throw std::invalid_argument("--results: a list such as 0,0,1,2,- is expected");
        }
        if (!given.unmatched().empty()) {
            throw std::invalid_argument("what is \"" + given.unmatched().front() + "\"?");
        }
        return out;
    } catch (const std::exception& error) {
        std::cerr << "vlm-backend: " << error.what() << "\n--help shows the options.\n";
        status = 1;
        return std::nullopt;
    }
}

/// What the network thread received, for the main thread.
class Inbox {
  public:
    int bell() const { return m_bell.get(); }
    void put(std::string topic, std::string payload) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.emplace_back(std::move(topic), std::move(payload));
        m_bell.wake();
    }
    std::deque<std::pair<std::string, std::string>> takeAll() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bell.reset();
        return std::exchange(m_messages, {});
    }

  private:
    const kyo::WakeFd m_bell;
    std::mutex m_mutex;
    std::deque<std::pair<std::string, std::string>> m_messages;  ///< guarded by m_mutex
};

/// What vlm-spool has exported. The exit status.
int importFile(const Options& options) {
    std::ifstream file(options.import);
    if (!file) {
        std::cerr << "vlm-backend: " << options.import << ": " << std::strerror(errno) << '\n';
        return 1;
    }
    vlmBackend::Backend backend(options.backend, print);
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (!backend.import(options.prefix, line)) {
            std::cerr << "vlm-backend: " << options.import << ':' << number << ": no exported envelope\n";
            return 1;
        }
    }
    print(std::to_string(backend.totals().envelopes) + " envelopes, " +
          std::to_string(backend.totals().repeated) + " of them again");
    return 0;
}

/// The main thread: signals, commands, messages, and answers that are due later.
class Program {
  public:
    explicit Program(const Options& options)
        : m_backend(options.backend, print),
          m_connection(
              options.mqtt, "vlm-backend-" + std::to_string(::getpid()),
              {options.prefix + "/status", options.prefix + "/config/request", options.prefix + "/data/#"},
              {},
              {[] {},
               [this](const std::string& topic, std::string payload, bool retained) {
                   // Only a presence may be older than the connection.
                   if (!retained || topic.ends_with("/status")) {
                       m_inbox.put(topic, std::move(payload));
                   }
               },
               [](int, int reason) {
                   if (!kyo::orx::MqttConnection::taken(reason)) {
                       print("an answer was not delivered, reason " + std::to_string(reason));
                   }
               },
               [](int, const std::string& text) { print(text); }}) {}

    void run(int signals) {
        m_connection.start();
        while (!m_ended) {
            pollfd handles[] = {{signals, POLLIN, 0}, {m_inbox.bell(), POLLIN, 0}, {m_input, POLLIN, 0}};
            ::poll(handles, 3, untilNextAnswer());
            if (handles[0].revents != 0) {
                onSignal(signals);
            }
            for (const auto& [topic, payload] : m_inbox.takeAll()) {
                schedule(m_backend.onMessage(topic, payload));
            }
            if (handles[2].revents != 0) {
                onInput();
            }
            sendWhatIsDue();
        }
        m_connection.stop();
        const auto& totals = m_backend.totals();
        print(std::to_string(totals.envelopes) + " envelopes, " + std::to_string(totals.repeated) +
              " of them again, " + std::to_string(totals.samples) + " samples, " +
              std::to_string(totals.bytes) + " bytes");
    }

  private:
    int untilNextAnswer() const {
        if (m_due.empty()) {
            return -1;
        }
        const auto left = std::chrono::ceil<milliseconds>(m_due.begin()->first - SteadyClock::now()).count();
        return static_cast<int>(std::max<std::int64_t>(0, left));
    }
    void schedule(std::vector<vlmBackend::Outgoing> messages) {
        for (auto& message : messages) {
            m_due.emplace(SteadyClock::now() + message.after, std::move(message));
        }
    }
    void sendWhatIsDue() {
        while (!m_due.empty() && m_due.begin()->first <= SteadyClock::now()) {
            const auto message = std::move(m_due.extract(m_due.begin()).mapped());
            if (message.channel && *message.channel != m_backend.isOpen()) {
                continue;
            }
            std::string error;
            if (m_connection.publish(message.topic, message.payload, false, 0, error) != 0) {
                print(message.topic + ": " + error);
            }
        }
    }
    void onSignal(int signals) {
        signalfd_siginfo info{};
        if (::read(signals, &info, sizeof info) != sizeof info) {
            return;
        }
        if (info.ssi_signo == SIGUSR1 || info.ssi_signo == SIGUSR2) {
            schedule(m_backend.setOpen(info.ssi_signo == SIGUSR1));
        } else {
            m_ended = true;
        }
    }
    void onInput() {
        char buffer[256];
        const ssize_t got = ::read(m_input, buffer, sizeof buffer);
        if (got <= 0) {
            m_input = -1;  // closed, or of a terminal that is not ours now
            return;
        }
        m_line.append(buffer, static_cast<std::size_t>(got));
        for (auto end = m_line.find('\n'); end != std::string::npos; end = m_line.find('\n')) {
            const std::string command = m_line.substr(0, end);
            m_line.erase(0, end + 1);
            if (command == "open" || command == "close") {
                schedule(m_backend.setOpen(command == "open"));
            } else if (!command.empty()) {
                print("what is \"" + command + "\"? open and close are known");
            }
        }
    }

    vlmBackend::Backend m_backend;
    Inbox m_inbox;
    std::multimap<SteadyClock::time_point, vlmBackend::Outgoing> m_due;
    int m_input = STDIN_FILENO;
    std::string m_line;
    bool m_ended = false;
    kyo::orx::MqttConnection m_connection;  ///< last: its thread uses the inbox
};

}  // namespace

int main(int argc, char** argv) try {
    int status = 0;
    const auto options = readOptions(argc, argv, status);
    if (!options) {
        return status;
    }
    if (!options->import.empty()) {
        return importFile(*options);
    }
    // Before the network thread is made, so that it has them blocked too.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGTTIN, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    const int handle = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    Program(*options).run(handle);
    ::close(handle);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "vlm-backend: " << error.what() << '\n';
    return 1;
}
