/// vlm-vehicle: a vehicle on SOME/IP for the bench.
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cxxopts.hpp>
#include <iostream>
#include <mutex>
#include <sstream>

#include "ac/com/runtime/component.h"
#include "base/Version.h"
#include "kyo/Log.h"
#include "machine/Manifest.h"
#include "tools/network/NetworkOptions.h"
#include "tools/vehicle/Names.h"
#include "tools/vehicle/Vehicle.h"

namespace {

using namespace vlmVehicle;

constexpr const char* restartedVariable = "VLM_VEHICLE_RESTARTED_AT";  // s at which the drive continues

std::mutex outputMutex;

void print(const std::string& line) {
    const std::lock_guard<std::mutex> lock(outputMutex);
    std::cout << line << std::endl;  // flushed, so that a pipe's reader gets each line at once
}

/// The platform's own messages, on standard error.
class StandardError : public kyo::ProductLogger {
  public:
    void logData(std::string message, kyo::LogLevel) override {
        const std::lock_guard<std::mutex> lock(outputMutex);
        std::cerr << message << std::endl;
    }
};

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Arguments {
    VehicleOptions vehicle;
    std::string someip;  ///< the manifest's section for this process
    double duration = 0;
    double statusSeconds = 10;
    int logLevel = 3;
    bool exitAtEnd = false;
};

[[noreturn]] void refuse(const std::string& reason) {
    std::cerr << "vlm-vehicle: " << reason << '\n';
    std::exit(1);
}

std::pair<std::string, std::string> splitAt(const std::string& text, const char* what) {
    const auto sign = text.find('=');
    if (sign == std::string::npos || sign == 0 || sign + 1 == text.size()) {
        refuse("\"" + text + "\": " + what + " is expected");
    }
    return {text.substr(0, sign), text.substr(sign + 1)};
}

/// The network options as the middleware takes them.
std::string someipSection(const cxxopts::ParseResult& given) {
    kyo::Json::Value section = tools::networkSection(given);
    if (!section.isMember("address")) {
        section["address"] = "127.0.0.2";
    }
    if (given.count("event-port") != 0) {
        section["eventPort"] = given["event-port"].as<unsigned>();
    }
    if (given.count("tcp") != 0) {
        section["eventsOverTcp"] = true;
    }
    machine::SomeIpSettings settings;
    std::string error;
    if (!machine::readSomeIpSettings(section, settings, error)) {
        refuse(error);
    }
    return kyo::Json::FastWriter().write(section);
}

void listNames() {
    std::cout << "Services and their events:\n";
    for (const auto& name : qdr::services::describedServiceNames()) {
        const auto service = qdr::services::makeDescribedService(name);
        std::cout << "  " << name << ':';
        for (const auto* event : service->events()) {
            std::cout << ' ' << event->name() << " (" << event->cycleMs() << " ms)";
        }
        std::cout << '\n';
    }
    std::cout << "\nControls, for \"set\" in scenarios and commands:\n";
    for (const auto& control : controlNames()) {
        std::cout << "  " << control.name << ": " << control.meaning;
        for (std::size_t i = 0; i < control.words.size(); ++i) {
            std::cout << (i == 0 ? "; " : ", ") << control.words[i];
        }
        std::cout << '\n';
    }
    std::cout << "\nQuantities, for conditions besides the controls:\n";
    for (const auto& quantity : quantityNames()) {
        std::cout << "  " << quantity.name << ": " << quantity.meaning << '\n';
    }
    std::cout << "\nFaults:\n";
    for (const auto& word : faultWords()) {
        std::cout << "  " << word << '\n';
    }
}

void declareOptions(cxxopts::Options& options) {
    // clang-format off
    options.add_options("Services")
        ("services", "services to offer, by comma; all of them without it", cxxopts::value<std::vector<std::string>>(), "NAMES")
        ("rate", "how much faster than their natural rates events are sent", cxxopts::value<double>()->default_value("1"), "FACTOR")
        ("period-ms", "one period for all events", cxxopts::value<unsigned>(), "MS")
        ("period", "period of one event; may be repeated", cxxopts::value<std::vector<std::string>>(), "SERVICE.EVENT=MS");
    options.add_options("Drive")
        ("scenario", "story for all services; a plain drive without it", cxxopts::value<std::string>(), "FILE")
        ("gpx", "recorded track for position and speed", cxxopts::value<std::string>(), "FILE")
        ("csv", "recorded samples of an event; may be repeated", cxxopts::value<std::vector<std::string>>(), "SERVICE.EVENT=FILE")
        ("loop", "recordings start again at their end")
        ("exit-at-end", "end when the recordings or the scenario have ended")
        ("time-factor", "seconds of drive in one second", cxxopts::value<double>()->default_value("1"), "FACTOR")
        ("seed", "of the random errors", cxxopts::value<unsigned>()->default_value("1"), "NUMBER")
        ("fault", "a fault at a time; may be repeated", cxxopts::value<std::vector<std::string>>(), "SECONDS:FAULT");
    tools::addNetworkOptions(options, "127.0.0.2");
    options.add_options("Network")
        ("event-port", "UDP and TCP port that events are sent from", cxxopts::value<unsigned>(), "PORT")
        ("tcp", "all events over TCP, whatever their descriptions say");
    options.add_options("Other")
        ("duration", "end after that many seconds", cxxopts::value<double>(), "SECONDS")
        ("status-seconds", "seconds between status lines; 0 for none", cxxopts::value<double>()->default_value("10"), "SECONDS")
        ("log-level", "of the platform's messages on standard error", cxxopts::value<int>()->default_value("3"), "0..7")
        ("list", "services, controls, quantities and faults")
        ("h,help", "this text")
        ("version", "print the version");
    // clang-format on
}

using Texts = std::vector<std::string>;

void readServiceOptions(const cxxopts::ParseResult& given, VehicleOptions& vehicle) {
    if (given.count("services") != 0) {
        vehicle.services = given["services"].as<Texts>();
    }
    vehicle.rate = given["rate"].as<double>();
    vehicle.timeFactor = given["time-factor"].as<double>();
    if (!(vehicle.rate > 0) || !(vehicle.timeFactor > 0) || vehicle.timeFactor > 1000) {
        refuse("--rate and --time-factor are above 0, the latter at most 1000");
    }
    if (given.count("period-ms") != 0) {
        vehicle.periodMs = given["period-ms"].as<unsigned>();
    }
    for (const auto& text : given.count("period") != 0 ? given["period"].as<Texts>() : Texts()) {
        const auto [event, milliseconds] = splitAt(text, "SERVICE.EVENT=MS");
        char* end = nullptr;
        const unsigned long number = std::strtoul(milliseconds.c_str(), &end, 10);
        if (*end != '\0' || number == 0 || number > 3600000) {
            refuse("\"" + text + "\": a period from 1 to 3600000 ms is expected");
        }
        vehicle.periods[event] = static_cast<unsigned>(number);
    }
}

void readDriveOptions(const cxxopts::ParseResult& given, VehicleOptions& vehicle) {
    for (const auto& [option, target] : {std::pair{"scenario", &vehicle.scenario}, {"gpx", &vehicle.track}}) {
        if (given.count(option) != 0) {
            *target = given[option].as<std::string>();
        }
    }
    for (const auto& text : given.count("csv") != 0 ? given["csv"].as<Texts>() : Texts()) {
        vehicle.recordings.push_back(splitAt(text, "SERVICE.EVENT=FILE"));
    }
    vehicle.loop = given.count("loop") != 0;
    vehicle.seed = given["seed"].as<unsigned>();
    for (const auto& text : given.count("fault") != 0 ? given["fault"].as<Texts>() : Texts()) {
        std::string error;
        if (!Fault::parseTimed(text, vehicle.faults.emplace_back(), error)) {
            refuse(error);
        }
    }
    if (const char* restarted = std::getenv(restartedVariable)) {
        vehicle.startTime = std::max(0.0, std::strtod(restarted, nullptr));
    }
}

Arguments readArguments(int argc, char** argv) {
    cxxopts::Options options(
        "vlm-vehicle",
        "Offers vehicle services over SOME/IP and sends their events.\n"
        "Commands on standard input: set CONTROL VALUE, status, quit, and faults; see --list.");
    declareOptions(options);
    const auto given = options.parse(argc, argv);
    if (given.count("help") != 0) {
        std::cout << options.help() << '\n';
        std::exit(0);
    }
    if (given.count("list") != 0) {
        listNames();
        std::exit(0);
    }
    if (!given.unmatched().empty()) {
        refuse("\"" + given.unmatched().front() + "\" is too much; see --help");
    }
    Arguments arguments;
    readServiceOptions(given, arguments.vehicle);
    readDriveOptions(given, arguments.vehicle);
    arguments.someip = someipSection(given);
    arguments.duration = given.count("duration") != 0 ? given["duration"].as<double>() : 0;
    arguments.statusSeconds = given["status-seconds"].as<double>();
    arguments.logLevel = given["log-level"].as<int>();
    arguments.exitAtEnd = given.count("exit-at-end") != 0;
    return arguments;
}

/// Whole lines of standard input, without blocking.
class Commands {
  public:
    /// False at the end of the input.
    bool read(std::vector<std::string>& lines) {
        char buffer[4096];
        const ssize_t size = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (size <= 0) {
            return size < 0 && (errno == EAGAIN || errno == EINTR);
        }
        m_rest.append(buffer, static_cast<std::size_t>(size));
        for (auto end = m_rest.find('\n'); end != std::string::npos; end = m_rest.find('\n')) {
            lines.push_back(m_rest.substr(0, end));
            m_rest.erase(0, end + 1);
        }
        return m_rest.size() < 65536;
    }

  private:
    std::string m_rest;
};

/// Restarts the program in the same process, like a control unit after a power failure: no peer is notified.
[[noreturn]] void restart(char** argv, double elapsed) {
    ::setenv(restartedVariable, std::to_string(elapsed).c_str(), 1);
    ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    ::execv("/proc/self/exe", argv);
    std::cerr << "vlm-vehicle: cannot restart: " << std::strerror(errno) << '\n';
    std::_Exit(1);
}

void run(const Arguments& arguments, char** argv, int signals) {
    Vehicle vehicle(arguments.vehicle, print);
    std::string error;
    if (!vehicle.prepare(error)) {
        refuse(error);
    }
    const ac::com::runtime::Component_singleton component(true, arguments.someip);
    Commands commands;
    const double begin = steadySeconds();
    double nextStatus = begin + arguments.statusSeconds;
    vehicle.start(begin);
    pollfd polled[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    bool ends = false;
    while (!ends) {
        const double now = steadySeconds();
        double next = vehicle.advance(now);
        if (vehicle.restartWanted()) {
            print("restarts without a word to anybody");
            restart(argv, arguments.vehicle.startTime + vehicle.elapsed());
        }
        if (arguments.statusSeconds > 0 && now >= nextStatus) {
            print(vehicle.statusLine());
            nextStatus += arguments.statusSeconds;
        }
        if (arguments.duration > 0) {
            next = std::min(next, begin + arguments.duration);
            ends = now >= begin + arguments.duration;
        }
        ends = ends || (arguments.exitAtEnd && vehicle.finished());
        const double wait = std::max(0.0, next - steadySeconds());
        const timespec pause{
            static_cast<time_t>(wait),
            static_cast<long>((wait - static_cast<double>(static_cast<time_t>(wait))) * 1e9)};
        if (ends || ::ppoll(polled, 2, &pause, nullptr) <= 0) {
            continue;
        }
        if (polled[0].revents != 0) {
            signalfd_siginfo info{};
            ends = ::read(signals, &info, sizeof info) > 0;
        }
        if (polled[1].revents != 0) {
            std::vector<std::string> lines;
            if (!commands.read(lines)) {
                polled[1].fd = -1;  // no more commands; the drive continues
            }
            for (const auto& line : lines) {
                std::string reason;
                if (line == "quit") {
                    ends = true;
                } else if (!vehicle.command(line, reason)) {
                    print("\"" + line + "\": " + reason);
                }
            }
        }
    }
    vehicle.stop();
    for (const auto& line : vehicle.summary()) {
        print(line);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-vehicle")) {
        return 0;
    }
    // Blocked before any thread exists, so that only the loop in run() receives the signals.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &stops, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    const int signals = ::signalfd(-1, &stops, SFD_CLOEXEC);
    try {
        const Arguments arguments = readArguments(argc, argv);
        kyo::Log::setProductLogger(new StandardError);  // threads log until the process ends
        kyo::Log::setReportingLevel(arguments.logLevel);
        run(arguments, argv, signals);
        return 0;
    } catch (const std::exception& error) {  // mostly from the option parser
        std::cerr << "vlm-vehicle: " << error.what() << '\n';
        return 1;
    }
}
