/// vlm-backend: receives from vehicles through an MQTT broker, or from a file, and stores. docs/mqtt.md
/// describes the topics, docs/backend.md the database.
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <cxxopts.hpp>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

#include "backend/Backend.h"
#include "backend/MqttConnection.h"
#include "backend/MqttTransport.h"
#include "backend/store/Export.h"
#include "backend/web/Service.h"
#include "base/Version.h"
#include "kyo/WakeFd.h"
#include "machine/Manifest.h"

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
    std::string follow;
    std::string database;
    std::string instances;   ///< group of shared subscriptions; empty: this one is alone
    std::string exportForm;  ///< empty: nothing is exported
    vlmBackend::store::Selection selection;
    int retentionDays = 0;  ///< 0: for ever
    /// From the threads of HTTP to the main thread.
    std::shared_ptr<kyo::WakeFd> assignmentsChanged = std::make_shared<kyo::WakeFd>();
    std::optional<vlmBackend::web::ServiceSettings> web;  ///< none: HTTP is not served
    bool usualAddress = true;                             ///< no other one was asked for
    vlmBackend::Settings backend;
};

cxxopts::Options describeOptions() {
    cxxopts::Options options("vlm-backend",
                             "Serves vehicles through an MQTT broker, or takes what files hold.");
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
    add("dictionary", "file of a zstd dictionary of vehicles, besides the built-in ones; may be repeated",
        cxxopts::value<std::vector<std::string>>()->default_value(""));
    add("types", "permitted data types, comma-separated; what the vehicle offers without it",
        cxxopts::value<std::vector<std::string>>()->default_value(""));
    add("answer-after", "milliseconds before a result", cxxopts::value<unsigned>()->default_value("0"));
    add("reopen-after", "milliseconds from a result other than 0 to the opening message",
        cxxopts::value<unsigned>()->default_value("1000"));
    add("closed", "start with a closed channel");
    add("unnamed", "results do not say which envelope they belong to");
    add("import", "take the envelopes of that file, of vlm-spool or of the directory transport, and end",
        cxxopts::value<std::string>()->default_value(""));
    add("follow", "take the envelopes of the directory transport's file while it grows; no broker is used",
        cxxopts::value<std::string>()->default_value(""));
    add("database", "store all that comes: file of SQLite, or postgresql://...",
        cxxopts::value<std::string>()->default_value(""));
    add("instances", "group of several instances that share the envelopes; needs PostgreSQL and MQTT 5",
        cxxopts::value<std::string>()->default_value(""));
    add("retention", "days after which what was received is deleted; 0: never",
        cxxopts::value<unsigned>()->default_value("0"));
    add("listen", "serve page and API at this address and port, with --database; none: not at all",
        cxxopts::value<std::string>()->default_value("127.0.0.1:8642"));
    add("page", "folder of the built page; without it, the installed one",
        cxxopts::value<std::string>()->default_value(""));
    add("catalog", "signal catalog for the checks of configurations",
        cxxopts::value<std::string>()->default_value(vlmCheck::CatalogView::kInstalled));
    add("tiles",
        "map tiles for the page: https://tiles.example/{z}/{x}/{y}.png; without it, outlines and a grid",
        cxxopts::value<std::string>()->default_value(""));
    add("tiles-attribution", "whose map that is, as its terms of use demand; shown on the map",
        cxxopts::value<std::string>()->default_value(""));
    add("users", "file with the users of page and API; --add-user writes it",
        cxxopts::value<std::string>()->default_value(""));
    add("add-user", "add that user to the file, with the password from the input, and end",
        cxxopts::value<std::string>()->default_value(""));
    add("role", "of the added user: view or configure", cxxopts::value<std::string>()->default_value("view"));
    add("http-cert", "certificate of the page's server, PEM; needed for other addresses than loopback",
        cxxopts::value<std::string>()->default_value(""));
    add("http-key", "its key, PEM", cxxopts::value<std::string>()->default_value(""));
    add("machine", "state socket of this machine's vlmmaster, for the page",
        cxxopts::value<std::string>()->default_value(""));
    add("machine-log", "its log file", cxxopts::value<std::string>()->default_value(""));
    add("export", "write from the database to the output, and end: csv, gpx or jsonl",
        cxxopts::value<std::string>()->default_value(""));
    add("vehicle", "of which vehicle; the last level of its prefix",
        cxxopts::value<std::string>()->default_value(""));
    add("columns", "of csv: views and their columns, gnss_positions.latitude,chassis_velocity_info.speed",
        cxxopts::value<std::vector<std::string>>()->default_value(""));
    add("from", "measured at this time (UTC, 2026-11-25T10:00:00.000) or later",
        cxxopts::value<std::string>()->default_value(""));
    add("to", "measured before this time", cxxopts::value<std::string>()->default_value(""));
    add("instance",
        "of csv and gpx: of which instance; without it, all in csv, in gpx the one with the most positions",
        cxxopts::value<std::int64_t>());
    add("h,help", "this text");
    add("version", "print the version");
    return options;
}

void readStorage(const cxxopts::ParseResult& given, Options& out) {
    out.follow = given["follow"].as<std::string>();
    out.database = given["database"].as<std::string>();
    out.retentionDays = static_cast<int>(given["retention"].as<unsigned>());
    out.exportForm = given["export"].as<std::string>();
    out.selection.vehicle = given["vehicle"].as<std::string>();
    for (const std::string& column : given["columns"].as<std::vector<std::string>>()) {
        if (!column.empty()) {
            out.selection.columns.push_back(column);
        }
    }
    if (const auto from = given["from"].as<std::string>(); !from.empty()) {
        out.selection.fromMs = vlmBackend::store::utcMs(from);
    }
    if (const auto to = given["to"].as<std::string>(); !to.empty()) {
        out.selection.toMs = vlmBackend::store::utcMs(to);
    }
    if (given.count("instance") != 0) {
        out.selection.instance = given["instance"].as<std::int64_t>();
    }
    out.instances = given["instances"].as<std::string>();
    if (!out.instances.empty()) {
        if (!vlmBackend::store::isServer(out.database) || !out.follow.empty() ||
            out.instances.find_first_of("/+#") != std::string::npos) {
            throw std::invalid_argument(
                "--instances: needs --database postgresql://... and a broker, and a name without / + #");
        }
        std::ostringstream name;
        name << out.instances << '-' << ::getpid() << '-' << std::hex << std::random_device{}();
        out.backend.instance = name.str();
    }
    if (!out.exportForm.empty() && out.database.empty()) {
        throw std::invalid_argument("--export: --database names where from");
    }
}

/// Its last level is the name of a vehicle, or + for all of them.
void checkPrefix(const Options& options) {
    const std::string name = vlmBackend::store::vehicleName(options.prefix);
    const bool isAll = name == "+" && options.follow.empty() && options.import.empty();
    std::string fault = isAll ? "" : vlmBackend::store::nameFault(name);
    if (options.prefix.find_first_of("+#") < options.prefix.size() - name.size()) {
        fault = "only its last level may be +";
    }
    if (!fault.empty()) {
        throw std::invalid_argument("--prefix " + options.prefix + ": " + fault);
    }
}

void readWeb(const cxxopts::ParseResult& given, Options& out) {
    const auto listen = given["listen"].as<std::string>();
    out.usualAddress = given.count("listen") == 0;
    if (listen == "none" || (out.usualAddress && out.database.empty())) {
        return;
    }
    if (out.database.empty()) {
        throw std::invalid_argument("--listen: --database names what to serve");
    }
    auto& web = out.web.emplace();
    web.server.address = vlmBackend::web::readAddress(listen);
    web.database = out.database;
    web.totals = out.backend.totals;
    web.machine = given["machine"].as<std::string>();
    web.machineLog = given["machine-log"].as<std::string>();
    web.access.users = given["users"].as<std::string>();
    if (const char* const token = std::getenv("VLM_BACKEND_TOKEN"); token != nullptr) {
        web.access.token = token;
    }
    web.server.certFile = given["http-cert"].as<std::string>();
    web.server.keyFile = given["http-key"].as<std::string>();
    if (web.server.certFile.empty() != web.server.keyFile.empty()) {
        throw std::invalid_argument("--http-cert and --http-key belong together");
    }
    if (!web.server.address.isLoopback() && (web.access.isOpen() || web.server.certFile.empty())) {
        throw std::invalid_argument(
            "--listen " + listen + ": other machines reach this address, so it needs" +
            (web.access.isOpen() ? " users (--users) or a token (VLM_BACKEND_TOKEN)" : "") +
            (web.access.isOpen() && web.server.certFile.empty() ? ", and" : "") +
            (web.server.certFile.empty() ? " TLS (--http-cert, --http-key)" : ""));
    }
    const auto page = given["page"].as<std::string>();
    web.page = page.empty() ? vlmBackend::web::Page::usualFolder() : std::filesystem::path(page);
    web.catalog = given["catalog"].as<std::string>();
    web.assignmentsChanged = [changed = out.assignmentsChanged] { changed->wake(); };
    web.tiles = given["tiles"].as<std::string>();
    web.attribution = given["tiles-attribution"].as<std::string>();
    web.version = vlmProd::version();
}

void addUser(const std::string& file, const std::string& name, const std::string& role) {
    if (file.empty()) {
        throw std::invalid_argument("--add-user: --users names the file");
    }
    if (::isatty(STDIN_FILENO) == 1) {
        std::cerr << "password: ";
    }
    std::string password;
    std::getline(std::cin, password);
    vlmBackend::web::addUser(file, name, role, password);
    std::cout << name << " may " << role << ", says " << file << '\n';
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
        if (const auto name = given["add-user"].as<std::string>(); !name.empty()) {
            addUser(given["users"].as<std::string>(), name, given["role"].as<std::string>());
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
        readStorage(given, out);
        checkPrefix(out);
        out.backend.prefixLevels = 1 + static_cast<std::size_t>(std::ranges::count(out.prefix, '/'));
        readWeb(given, out);
        out.backend.answerAfter = milliseconds(given["answer-after"].as<unsigned>());
        out.backend.reopenAfter = milliseconds(given["reopen-after"].as<unsigned>());
        for (const std::string& type : given["types"].as<std::vector<std::string>>()) {
            if (!type.empty()) {
                out.backend.permitted.push_back(type);
            }
        }
        kyo::orx::addDictionaries(given["dictionary"].as<std::vector<std::string>>(),
                                  out.backend.dictionaries);
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

/// What the network thread received, for the main thread. It takes no more than can be stored: the network
/// thread waits, and with it the broker.
class Inbox {
  public:
    static constexpr std::size_t kMostBytes = 64u << 20;
    static constexpr std::size_t kMostAtOnce = 512u << 10;

    int bell() const { return m_bell.get(); }
    void put(std::string topic, std::string payload) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_room.wait(lock, [this] { return m_bytes < kMostBytes || m_closed; });
        m_bytes += payload.size();
        m_messages.push_back({std::move(topic), std::move(payload)});
        m_bell.wake();
    }
    /// The oldest ones. Not all after an outage: what they answer, and the lease, must not wait for all.
    std::vector<vlmBackend::Incoming> take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<vlmBackend::Incoming> taken;
        for (std::size_t bytes = 0; !m_messages.empty() && bytes < kMostAtOnce; m_messages.pop_front()) {
            bytes += m_messages.front().payload.size();
            m_bytes -= m_messages.front().payload.size();
            taken.push_back(std::move(m_messages.front()));
        }
        if (m_messages.empty()) {
            m_bell.reset();
        }
        m_room.notify_all();
        return taken;
    }
    /// Nobody takes any more.
    void close() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_room.notify_all();
    }

  private:
    const kyo::WakeFd m_bell;
    std::mutex m_mutex;
    std::condition_variable m_room;
    std::deque<vlmBackend::Incoming> m_messages;  ///< these three guarded by m_mutex
    std::size_t m_bytes = 0;
    bool m_closed = false;
};

/// What vlm-spool has exported, or the directory transport's file. The exit status.
int importFile(const Options& options) {
    std::ifstream file(options.import);
    if (!file) {
        std::cerr << "vlm-backend: " << options.import << ": " << std::strerror(errno) << '\n';
        return 1;
    }
    constexpr std::size_t kAtOnce = 32;
    vlmBackend::Backend backend(options.backend, print);
    std::size_t number = 0;
    std::vector<std::string> lines;
    for (bool more = true; more;) {
        lines.clear();
        for (std::string line; lines.size() < kAtOnce && (more = !std::getline(file, line).fail());) {
            lines.push_back(line);
        }
        const std::size_t good = backend.import(options.prefix, lines);
        if (good < lines.size()) {
            std::cerr << "vlm-backend: " << options.import << ':' << number + good + 1
                      << (backend.databaseFailed() ? ": cannot be stored" : ": no envelope") << '\n';
            return 1;
        }
        number += good;
    }
    print(std::to_string(backend.totals().envelopes) + " envelopes, " +
          std::to_string(backend.totals().repeated) + " of them again");
    return 0;
}

int exportFrom(const Options& options) {
    namespace store = vlmBackend::store;
    const auto sql = store::connect(options.database, true);
    const store::Lend lend = [&sql](const auto& work) { work(*sql); };
    if (options.exportForm == "csv") {
        store::exportCsv(lend, options.selection, std::cout);
    } else if (options.exportForm == "gpx") {
        store::exportGpx(lend, options.selection, std::cout);
    } else if (options.exportForm == "jsonl") {
        store::exportEnvelopes(lend, options.selection, std::cout);
    } else {
        throw std::invalid_argument("--export: csv, gpx or jsonl is expected");
    }
    std::cout.flush();
    if (!std::cout) {
        throw std::runtime_error("the output cannot be written");
    }
    return 0;
}

/// Deletes what is older than the retention, at the start and every hour: a part in each call, as the thread
/// that calls also stores and renews the lease.
class Retention {
  public:
    Retention(vlmBackend::store::Store* database, int days)
        : m_database(days > 0 ? database : nullptr), m_days(days) {}

    bool isDue() const { return m_database != nullptr && SteadyClock::now() >= m_next; }
    void run() {
        if (!isDue()) {
            return;
        }
        const auto limit = std::chrono::system_clock::now() - std::chrono::days(m_days);
        try {
            const auto deleted = m_database->deleteBefore(
                std::chrono::duration_cast<milliseconds>(limit.time_since_epoch()).count());
            m_reports += deleted.reports;
            m_samples += deleted.samples;
            if (deleted.isMore) {
                return;
            }
            m_next = SteadyClock::now() + std::chrono::hours(1);
            if (m_reports != 0) {
                print("deleted " + std::to_string(m_reports) + " reports with " + std::to_string(m_samples) +
                      " samples that are older than " + std::to_string(m_days) + " days");
            }
            m_reports = m_samples = 0;
        } catch (const std::exception& error) {
            m_next = SteadyClock::now() + std::chrono::minutes(1);
            print(std::string("what is too old could not be deleted: ") + error.what());
        }
    }

  private:
    vlmBackend::store::Store* const m_database;
    const int m_days;
    std::int64_t m_reports = 0;  ///< deleted so far
    std::int64_t m_samples = 0;
    SteadyClock::time_point m_next = SteadyClock::now();
};

/// Takes line after line of a file that grows, and waits when there is none, until a signal comes. A file
/// that was moved away or cut is read from its new start; what is known changes nothing.
class Follower {
  public:
    explicit Follower(const Options& options)
        : m_options(options),
          m_backend(options.backend, print),
          m_retention(options.backend.database, options.retentionDays) {}

    void run(int signals) {
        print("follows " + m_options.follow);
        for (;;) {
            pollfd handle{signals, POLLIN, 0};
            const bool isBusy = readOn() || m_retention.isDue();
            const bool asked = ::poll(&handle, 1, isBusy ? 0 : kPauseMs) > 0;
            if (asked) {
                while (readOn()) {  // what was there when the signal came
                }
                return;
            }
            m_retention.run();
        }
    }

  private:
    static constexpr int kPauseMs = 500;
    static constexpr std::size_t kAtOnce = 32;

    /// Whether there may be more to read at once.
    bool readOn() {
        std::ifstream file(m_options.follow, std::ios::binary);
        struct stat found {};
        if (!file || ::stat(m_options.follow.c_str(), &found) != 0) {
            return false;
        }
        if (found.st_ino != m_inode || found.st_size < m_offset) {
            m_inode = found.st_ino;
            m_offset = 0;
        }
        file.seekg(m_offset);
        std::vector<std::string> lines;
        std::vector<off_t> ends{m_offset};
        for (std::string line; lines.size() < kAtOnce && std::getline(file, line) && !file.eof();) {
            ends.push_back(ends.back() + static_cast<off_t>(line.size()) + 1);
            lines.push_back(std::move(line));
        }
        std::size_t good = m_backend.import(m_options.prefix, lines);
        if (good < lines.size() && !m_backend.databaseFailed()) {
            print(m_options.follow + ": the line at byte " + std::to_string(ends[good]) + " is no envelope");
            ++good;
        } else if (m_backend.databaseFailed()) {
            m_backend.retry();
        }
        m_offset = ends[good];
        return good == kAtOnce;
    }

    const Options& m_options;
    vlmBackend::Backend m_backend;
    Retention m_retention;
    ino_t m_inode = 0;
    off_t m_offset = 0;
};

/// Serves HTTP while it lives. Another program at the usual address is no reason not to store.
std::unique_ptr<vlmBackend::web::Service> startWeb(const Options& options) {
    if (!options.web) {
        return nullptr;
    }
    auto service = std::make_unique<vlmBackend::web::Service>(*options.web);
    try {
        service->start();
        print("the page is at " + service->url());
    } catch (const std::system_error& error) {
        const std::string reason = std::string("the page cannot be served: ") + error.what();
        if (!options.usualAddress) {
            throw std::runtime_error(reason);
        }
        print(reason + "; --listen chooses another address");
        return nullptr;
    }
    return service;
}

/// The main thread: signals, commands, messages, and answers that are due later.
class Program {
  public:
    explicit Program(const Options& options)
        : m_backend(options.backend, print),
          m_retention(options.backend.database, options.retentionDays),
          m_assignmentsChanged(options.assignmentsChanged),
          m_connection(
              options.mqtt,
              "vlm-backend-" +
                  (options.instances.empty() ? std::to_string(::getpid()) : options.backend.instance),
              {options.prefix + "/status", options.prefix + "/health", options.prefix + "/config/request",
               (options.instances.empty() ? "" : "$share/" + options.instances + '/') + options.prefix +
                   "/data/#"},
              {},
              {[] {},
               [this](const std::string& topic, std::string payload, bool retained) {
                   // Only presence and health may be older than the connection.
                   if (!retained || topic.ends_with("/status") || topic.ends_with("/health")) {
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
            pollfd handles[] = {{signals, POLLIN, 0},
                                {m_inbox.bell(), POLLIN, 0},
                                {m_input, POLLIN, 0},
                                {m_assignmentsChanged->get(), POLLIN, 0}};
            ::poll(handles, std::size(handles), untilNextAnswer());
            if (handles[0].revents != 0) {
                onSignal(signals);
            }
            schedule(m_backend.onMessages(m_inbox.take()));
            if (m_backend.databaseFailed() && SteadyClock::now() >= m_nextTry) {
                m_nextTry = SteadyClock::now() + kTryEvery;
                schedule(m_backend.retry());
            }
            if (handles[3].revents != 0) {
                m_assignmentsChanged->reset();
                schedule(m_backend.onConfigurationsChanged());
            }
            schedule(m_backend.tick(SteadyClock::now()));
            m_retention.run();
            if (handles[2].revents != 0) {
                onInput();
            }
            sendWhatIsDue();
        }
        m_inbox.close();
        m_connection.stop();
        m_backend.leave();
        const auto& totals = m_backend.totals();
        print(std::to_string(totals.envelopes) + " envelopes, " + std::to_string(totals.repeated) +
              " of them again, " + std::to_string(totals.samples) + " samples, " +
              std::to_string(totals.bytes) + " bytes" +
              (totals.refused == 0 ? "" : "; " + std::to_string(totals.refused) + " messages refused"));
    }

  private:
    static constexpr std::chrono::seconds kTryEvery{1};
    static constexpr std::chrono::minutes kLongestWait{1};
    static constexpr milliseconds kBrokerPause{20};  ///< for it to confirm some of many messages

    int untilNextAnswer() const {
        auto next = SteadyClock::now() + kLongestWait;
        if (!m_due.empty()) {
            next = std::min(next, std::max(m_due.begin()->first, m_sendAgainAt));
        }
        if (m_backend.databaseFailed()) {
            next = std::min(next, m_nextTry);
        }
        if (const auto tick = m_backend.nextTick()) {
            next = std::min(next, *tick);
        }
        if (m_retention.isDue()) {
            return 0;
        }
        const auto left = std::chrono::ceil<milliseconds>(next - SteadyClock::now()).count();
        return static_cast<int>(std::max<std::int64_t>(0, left));
    }
    void schedule(std::vector<vlmBackend::Outgoing> messages) {
        for (auto& message : messages) {
            m_due.emplace(SteadyClock::now() + message.after, std::move(message));
        }
    }
    void sendWhatIsDue() {
        while (!m_due.empty() && std::max(m_due.begin()->first, m_sendAgainAt) <= SteadyClock::now()) {
            const auto& message = m_due.begin()->second;
            std::string error;
            if (!message.channel || *message.channel == m_backend.isOpen()) {
                const auto code = m_connection.publish(message.topic, message.payload, false, 0, error);
                if (code == kyo::orx::MqttConnection::kQueueFull) {
                    m_sendAgainAt = SteadyClock::now() + kBrokerPause;
                    return;
                }
                if (code != 0) {
                    print(message.topic + ": " + error);
                }
            }
            m_due.erase(m_due.begin());
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
    Retention m_retention;
    SteadyClock::time_point m_nextTry;
    Inbox m_inbox;
    std::multimap<SteadyClock::time_point, vlmBackend::Outgoing> m_due;
    SteadyClock::time_point m_sendAgainAt{};
    const std::shared_ptr<kyo::WakeFd> m_assignmentsChanged;
    int m_input = STDIN_FILENO;
    std::string m_line;
    bool m_ended = false;
    kyo::orx::MqttConnection m_connection;  ///< last: its thread uses the inbox
};

}  // namespace

int main(int argc, char** argv) try {
    if (vlmProd::printVersion(argc, argv, "vlm-backend")) {
        return 0;
    }
    int status = 0;
    auto options = readOptions(argc, argv, status);
    if (!options) {
        return status;
    }
    if (!options->exportForm.empty()) {
        return exportFrom(*options);
    }
    std::optional<vlmBackend::store::Store> database;
    if (!options->database.empty()) {
        options->backend.database = &database.emplace(options->database);
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
    const auto web = startWeb(*options);
    if (!options->follow.empty()) {
        Follower(*options).run(handle);
    } else {
        Program(*options).run(handle);
    }
    ::close(handle);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "vlm-backend: " << error.what() << '\n';
    return 1;
}
