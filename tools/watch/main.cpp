/// vlm-watch: values of vehicle services in a terminal, as they arrive. docs/watch.md describes it.
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cxxopts.hpp>
#include <iostream>
#include <map>
#include <stdexcept>

#include "base/Version.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "tools/check/Suggest.h"
#include "tools/network/NetworkOptions.h"
#include "tools/watch/Address.h"
#include "tools/watch/Offers.h"
#include "tools/watch/Rates.h"
#include "tools/watch/Text.h"
#include "tools/watch/Watcher.h"

namespace {

using namespace vlmWatch;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

constexpr const char* kManifestVariable = "VLM_MACHINE_MANIFEST";
constexpr auto kSearchEvery = 200ms;
constexpr auto kFirstTroubles = 2s;
constexpr auto kTroublesEvery = 1s;
constexpr auto kRatesEvery = 1s;
constexpr double kListSeconds = 2;
constexpr double kOnceSeconds = 10;
/// Lines a second on a terminal, and how many may come at once.
constexpr double kLinesPerSecond = 20;

volatile std::sig_atomic_t stopped = 0;

void stop(int) {
    stopped = 1;
}

/// The platform's own messages, on standard error.
class StandardError : public kyo::ProductLogger {
  public:
    void logData(std::string message, kyo::LogLevel) override { std::cerr << message + '\n'; }
};

enum class Format : std::uint8_t { Text, Csv, Json };

struct Arguments {
    Texts selections;
    Texts fields;
    Format format = Format::Text;
    bool rate = false;
    bool once = false;
    bool list = false;
    bool explain = false;
    bool all = false;
    double seconds = 0;  ///< 0: until it is stopped
    int logLevel = 3;
    machine::SomeIpSettings someip;
    bool chooseAddress = true;
};

void declareOptions(cxxopts::Options& options) {
    // clang-format off
    options.add_options()
        ("selections", "", cxxopts::value<Texts>());
    options.add_options("Values")
        ("fields", "these fields only, by comma", cxxopts::value<Texts>(), "NAMES")
        ("explain", "a line for each field, with unit and meaning")
        ("all", "on a terminal, too, each sample; at most 20 lines a second without it")
        ("csv", "as CSV, of one event; vlm-vehicle --csv replays it")
        ("json", "as JSON Lines")
        ("once", "end when each selected event has arrived; status 1 if one has not after 10 s")
        ("seconds", "end after that many seconds; status 1 if a selected event has not arrived", cxxopts::value<double>(), "SECONDS");
    options.add_options("Instead of values")
        ("rate", "how often samples arrive, each second")
        ("list", "who offers what, after 2 s; with --explain, the events and fields, too");
    tools::addNetworkOptions(options, "a free one: on loopback 127.0.0.100 to 127.0.0.199");
    options.add_options("Other")
        ("log-level", "of the platform's messages on standard error", cxxopts::value<int>()->default_value("3"), "0..7")
        ("h,help", "this text")
        ("version", "print the version");
    // clang-format on
    options.positional_help("[SERVICE[.event][:index]]...");
    options.parse_positional({"selections"});
}

/// Throws std::invalid_argument for options that exclude each other.
Arguments readArguments(const cxxopts::ParseResult& given) {
    const auto has = [&](const char* option) { return given.count(option) != 0; };
    const auto exclude = [&](const char* one, const char* other) {
        if (has(one) && has(other)) {
            throw std::invalid_argument(std::string("--") + one + " and --" + other + " exclude each other");
        }
    };
    exclude("csv", "json");
    exclude("csv", "rate");
    exclude("csv", "list");
    exclude("csv", "fields");
    exclude("csv", "explain");
    exclude("json", "fields");
    exclude("json", "explain");
    exclude("rate", "list");
    exclude("rate", "explain");
    exclude("rate", "once");
    exclude("list", "once");
    Arguments arguments;
    if (has("selections")) {
        arguments.selections = given["selections"].as<Texts>();
    }
    if (has("fields")) {
        arguments.fields = given["fields"].as<Texts>();
    }
    arguments.format = has("csv") ? Format::Csv : has("json") ? Format::Json : Format::Text;
    arguments.rate = has("rate");
    arguments.once = has("once");
    arguments.list = has("list");
    arguments.explain = has("explain");
    arguments.all = has("all");
    arguments.logLevel = given["log-level"].as<int>();
    arguments.seconds = arguments.list ? kListSeconds : arguments.once ? kOnceSeconds : 0;
    if (has("seconds")) {
        arguments.seconds = given["seconds"].as<double>();
        if (!std::isfinite(arguments.seconds) || arguments.seconds <= 0) {
            throw std::invalid_argument("--seconds is above 0");
        }
    }
    // The watcher receives what vlmmaster receives, but the manifest's log file is vlmmaster's alone.
    const char* const manifest = std::getenv(kManifestVariable);
    const kyo::Json::Value section = tools::networkSection(given, manifest == nullptr ? "" : manifest);
    ::unsetenv(kManifestVariable);
    std::string error;
    if (!machine::readSomeIpSettings(section, arguments.someip, error)) {
        throw std::invalid_argument(error);
    }
    arguments.chooseAddress = !has("address");
    return arguments;
}

std::set<std::string> checkedFields(const Texts& names, const std::vector<Selected>& selection) {
    std::set<std::string> fields;
    for (const auto& name : names) {
        Texts known;
        for (const Selected& one : selection) {
            for (const auto& field : one.event->fields()) {
                known.emplace_back(field.name);
            }
        }
        if (std::ranges::find(known, name) == known.end()) {
            const std::string near = vlmCheck::didYouMean(name, known);
            throw std::runtime_error("no selected event has a field \"" + name + "\"; " +
                                     (near.empty() ? "--list --explain shows them" : near));
        }
        fields.insert(name);
    }
    return fields;
}

/// Standard output. Writing waits while the reader is slow, and ends the program in order when it is gone.
class Output {
  public:
    bool isTerminal() const { return m_isTerminal; }
    bool isGone() const { return m_isGone; }

    winsize size() const {
        winsize size{};
        return m_isTerminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size : winsize{};
    }

    void write(std::string_view text) {
        while (!text.empty() && !m_isGone && stopped == 0) {
            const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
            if (written >= 0) {
                text.remove_prefix(static_cast<std::size_t>(written));
            } else if (errno == EPIPE) {
                m_isGone = true;
            } else if (errno != EINTR) {
                throw std::runtime_error(std::string("standard output: ") + std::strerror(errno));
            }
        }
    }

    /// Waits for `descriptor`, if it is not -1, a signal, the reader's end or the time-out.
    void wait(int descriptor, std::chrono::milliseconds limit) {
        pollfd polled[] = {{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        if (::poll(polled, 2, static_cast<int>(limit.count())) > 0 &&
            (polled[1].revents & (POLLERR | POLLHUP)) != 0) {
            m_isGone = true;
        }
    }

  private:
    const bool m_isTerminal = ::isatty(STDOUT_FILENO) != 0;
    bool m_isGone = false;
};

/// Which samples a terminal shows: at most kLinesPerSecond lines, shared by all events and indexes.
class Budget {
  public:
    /// Returns the number of samples of that kind that were skipped since the last one shown; nothing if this
    /// one is to be skipped.
    std::optional<std::uint64_t> take(const Arrival& arrival, Clock::time_point now) {
        Shown& shown = m_shown[{arrival.selected, arrival.instance, arrival.index}];
        m_left = std::min(kLinesPerSecond,
                          m_left + std::chrono::duration<double>(now - m_last).count() * kLinesPerSecond);
        m_last = now;
        const auto turn =
            std::chrono::duration<double>(0.9 * static_cast<double>(m_shown.size()) / kLinesPerSecond);
        if (m_left <= 0 || now - shown.last < turn) {
            ++shown.skipped;
            return std::nullopt;
        }
        shown.last = now;
        return std::exchange(shown.skipped, 0);
    }
    void spend(const std::string& text) { m_left -= static_cast<double>(std::ranges::count(text, '\n')); }

  private:
    struct Shown {
        Clock::time_point last;
        std::uint64_t skipped = 0;
    };
    std::map<std::tuple<std::size_t, std::uint16_t, std::optional<std::int64_t>>, Shown> m_shown;
    double m_left = kLinesPerSecond;
    Clock::time_point m_last = Clock::now();
};

/// What --once and --seconds wait for: each selected event, and each of its selected indexes.
class Awaited {
  public:
    explicit Awaited(const std::vector<Selected>& selection) {
        for (std::size_t i = 0; i < selection.size(); ++i) {
            for (const std::int64_t index : selection[i].indexes) {
                m_missing.insert({i, index});
            }
            if (selection[i].indexes.empty()) {
                m_missing.insert({i, std::nullopt});
            }
        }
    }

    /// Returns true if the sample, or another one of its notification, was awaited.
    bool meets(const Arrival& arrival) {
        const std::pair notification(arrival.selected, arrival.timeUs);
        if (m_missing.erase({arrival.selected, arrival.index}) != 0) {
            return true;
        }
        if (m_missing.erase({arrival.selected, std::nullopt}) != 0) {
            m_notification = notification;
            return true;
        }
        return m_notification == notification;
    }

    bool isEmpty() const { return m_missing.empty(); }
    Texts names(const std::vector<Selected>& selection) const {
        Texts names;
        for (const auto& [place, index] : m_missing) {
            names.push_back(selection[place].path() + (index ? ":" + std::to_string(*index) : ""));
        }
        return names;
    }

  private:
    std::set<std::pair<std::size_t, std::optional<std::int64_t>>> m_missing;
    std::optional<std::pair<std::size_t, std::int64_t>> m_notification;
};

/// What the network lost or refused, for the last line.
std::string losses(const Watcher& watcher) {
    std::string text;
    const auto add = [&text](std::uint64_t count, const char* what) {
        if (count != 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + what;
        }
    };
    add(kyo::Status::counter("someip.sessionGaps").value(), "notifications missing in the sender's numbers");
    add(kyo::Status::counter("someip.kernelDropped").value(), "datagrams dropped by the full receive buffer");
    add(kyo::Status::counter("someip.malformed").value() + kyo::Status::counter("someip.truncated").value(),
        "malformed notifications");
    add(kyo::Status::counter("someip.wrongVersion").value(), "notifications of another version");
    add(watcher.dropped(), "samples dropped because the output was too slow");
    return text;
}

class Program {
  public:
    Program(const Arguments& arguments, const Services& services)
        : m_arguments(arguments),
          m_services(services),
          m_selection(select(arguments.selections, services)),
          m_fields(checkedFields(arguments.fields, m_selection)),
          m_awaited(m_selection) {
        if (arguments.format == Format::Csv && m_selection.size() != 1) {
            throw std::runtime_error("--csv is for one event, such as GNSS.positions; --json is for several");
        }
    }

    int list() {
        while (!ended() && !m_output.isGone()) {
            for (const Selected& one : m_selection) {
                someip::Runtime::process().findService(one.service->interface(), someip::kAnyInstance);
            }
            m_output.wait(-1, kSearchEvery);
        }
        const auto offers = someip::Runtime::process().offers();
        const bool all = m_arguments.selections.empty();
        m_output.write(m_arguments.format == Format::Json
                           ? offersJson(offers, m_selection, m_services, all)
                           : offersText(offers, m_selection, m_services, all, m_arguments.explain));
        return offers.empty() ? 1 : 0;
    }

    int watch() {
        Watcher watcher(someip::Runtime::process(), m_selection);
        Rates rates(m_selection, watcher);
        Lines::Options options;
        const winsize size = m_output.size();
        const bool sparse = m_output.isTerminal() && !m_arguments.all && m_arguments.format == Format::Text;
        options.fields = m_fields;
        options.width = size.ws_col;
        options.height = size.ws_row;
        options.explain = m_arguments.explain;
        options.sparse = sparse && !m_arguments.once;
        Lines lines(m_selection, options);
        if (m_arguments.format == Format::Csv) {
            m_output.write(csvHeader(*m_selection.front().event));
        }
        auto nextSearch = Clock::now();
        auto nextTroubles = Clock::now() + kFirstTroubles;
        auto nextRates = Clock::now() + kRatesEvery;
        while (!ended() && !m_output.isGone() && !(m_arguments.once && m_awaited.isEmpty())) {
            const auto now = Clock::now();
            if (now >= nextSearch) {
                watcher.search();
                nextSearch = now + kSearchEvery;
            }
            show(watcher.take(), lines, rates, options.sparse);
            if (m_arguments.rate && now >= nextRates) {
                showRates(rates, now);
                nextRates += kRatesEvery;
            } else if (!m_arguments.rate && now >= nextTroubles) {
                showTroubles(watcher);
                nextTroubles = now + kTroublesEvery;
            }
            m_output.wait(watcher.descriptor(), kSearchEvery);
        }
        if (lines.hasCut()) {
            std::cerr << "Lines were too long for the terminal: --fields selects, --explain shows all.\n";
        }
        return finish(watcher);
    }

  private:
    bool ended() const {
        return stopped != 0 ||
               (m_arguments.seconds > 0 &&
                std::chrono::duration<double>(Clock::now() - m_begin).count() >= m_arguments.seconds);
    }

    void show(const std::vector<Arrival>& arrivals, Lines& lines, Rates& rates, bool sparse) {
        std::string text;
        for (const Arrival& arrival : arrivals) {
            ++m_samples;
            const bool awaited = m_awaited.meets(arrival);
            if (m_arguments.rate) {
                rates.count(arrival);
                continue;
            }
            if (m_arguments.once && !awaited) {
                continue;
            }
            const Selected& selected = m_selection[arrival.selected];
            if (m_arguments.format == Format::Json) {
                text += jsonLine(selected, arrival);
            } else if (m_arguments.format == Format::Csv) {
                text += csvRow(*selected.event, arrival);
            } else if (!sparse) {
                text += lines.of(arrival, 0);
            } else if (const auto skipped = m_budget.take(arrival, Clock::now())) {
                const std::string shown = lines.of(arrival, *skipped);
                m_budget.spend(shown);
                text += shown;
            }
        }
        m_output.write(text);
    }

    /// On a terminal each table replaces the previous one.
    void showRates(Rates& rates, Clock::time_point now) {
        const auto timeUs = std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
        if (m_arguments.format == Format::Json) {
            m_output.write(rates.json(now, timeUs));
            return;
        }
        const winsize size = m_output.size();
        const std::string table = rates.table(now, size.ws_row > 2 ? size.ws_row - 1U : 0, size.ws_col);
        std::string text = timeText(timeUs) + " UTC\n";
        if (m_output.isTerminal()) {
            text = m_tableLines == 0 ? "" : "\x1b[" + std::to_string(m_tableLines) + "A\x1b[J";
        }
        m_tableLines = static_cast<std::size_t>(std::ranges::count(table, '\n'));
        m_output.write(text + table);
    }

    void showTroubles(const Watcher& watcher) {
        const Texts now = watcher.troubles();
        for (const auto& line : now) {
            if (std::ranges::find(m_troubles, line) == m_troubles.end()) {
                std::cerr << line << '\n';
            }
        }
        if (now.empty() && !m_troubles.empty()) {
            std::cerr << "all selected events arrive now\n";
        }
        m_troubles = now;
    }

    int finish(const Watcher& watcher) {
        if (m_output.isGone()) {
            return 0;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - m_begin).count();
        const std::string lost = losses(watcher);
        if (!lost.empty() || (m_arguments.format == Format::Text && !m_arguments.once)) {
            char text[80];
            std::snprintf(text, sizeof text, "%llu samples in %.1f s",
                          static_cast<unsigned long long>(m_samples), seconds);
            std::cerr << text << (lost.empty() ? "" : "; " + lost) << '\n';
        }
        if (m_arguments.seconds <= 0 || stopped != 0 || m_awaited.isEmpty()) {
            return 0;
        }
        std::cerr << "vlm-watch: not arrived: " << vlmCheck::listed(m_awaited.names(m_selection)) << '\n';
        for (const auto& line : watcher.troubles()) {
            std::cerr << "  " << line << '\n';
        }
        return 1;
    }

    const Arguments& m_arguments;
    const Services& m_services;
    const std::vector<Selected> m_selection;
    const std::set<std::string> m_fields;
    const Clock::time_point m_begin = Clock::now();
    Output m_output;
    Budget m_budget;
    Awaited m_awaited;
    Texts m_troubles;
    std::uint64_t m_samples = 0;
    std::size_t m_tableLines = 0;
};

int run(int argc, char** argv) {
    cxxopts::Options options(
        "vlm-watch",
        "Prints values of vehicle services as they arrive, as a SOME/IP client of its own.\n"
        "Without a selection, everything. Names may be in any case, an index is a number or its name.");
    declareOptions(options);
    const auto given = options.parse(argc, argv);
    if (given.count("help") != 0) {
        std::cout << options.help({"Values", "Instead of values", "Network", "Other"}) << '\n';
        return 0;
    }
    const Arguments arguments = readArguments(given);
    const Services services = describedServices();
    Program program(arguments, services);
    arguments.chooseAddress ? startAtFreeAddress(arguments.someip) : startAt(arguments.someip);
    // From here on the platform's own messages are of interest; before, addresses were tried.
    kyo::Log::setProductLogger(new StandardError);  // threads log until the process ends
    kyo::Log::setReportingLevel(arguments.logLevel);
    // The runtime's threads have the signals blocked: only this one is interrupted.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    const int status = arguments.list ? program.list() : program.watch();
    someip::Runtime::process().stop();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-watch")) {
        return 0;
    }
    struct sigaction action {};
    action.sa_handler = stop;
    action.sa_flags =
        static_cast<int>(SA_RESETHAND);  // a second Ctrl-C ends it at once; a write is interrupted
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "vlm-watch: " << error.what() << '\n';
        return 2;
    }
}
