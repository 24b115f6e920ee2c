// vlm-status: prints vlmmaster's status once, or follows it as one live line.
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cxxopts.hpp>
#include <exception>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "base/Version.h"
#include "machine/Manifest.h"
#include "state/StateSocket.h"
#include "tools/state/Bundle.h"
#include "tools/state/Exporter.h"
#include "tools/state/Metrics.h"
#include "tools/state/StatusText.h"

namespace {

bool read(ara::stm::StateSocket& socket, const std::string& path, kyo::Json::Value& snapshot,
          std::string& error) {
    kyo::Json::Value request(kyo::Json::objectValue);
    request["request"] = "status";
    // The server closes idle connections: that does not mean that the process is gone.
    if (socket.connected() && socket.ask(request, snapshot, error)) {
        return true;
    }
    return socket.connect(path, error) && socket.ask(request, snapshot, error);
}

/// Prints what `text` makes of the status.
int printOnce(const std::string& path, const std::function<std::string(const kyo::Json::Value&)>& text) {
    ara::stm::StateSocket socket;
    kyo::Json::Value snapshot;
    std::string error;
    if (!read(socket, path, snapshot, error)) {
        std::fprintf(stderr, "vlm-status: %s\n", error.c_str());
        return 1;
    }
    std::fputs(text(snapshot).c_str(), stdout);
    return 0;
}

/// Serves metrics until the process ends; a vlmmaster that does not answer has vlm_up 0.
int serveMetrics(const std::string& path, const std::string& listen) {
    ara::stm::StateSocket socket;
    std::string error;
    const auto current = [&] {
        kyo::Json::Value snapshot(kyo::Json::objectValue);
        std::string ignored;
        return read(socket, path, snapshot, ignored) ? snapshot : kyo::Json::Value(kyo::Json::objectValue);
    };
    if (!tools::exportMetrics(listen, current, error)) {
        std::fprintf(stderr, "vlm-status: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

/// Also without a running vlmmaster, or a path: then the file says why there is no status.
int writeBundle(const std::string& path, const std::string& file) {
    ara::stm::StateSocket socket;
    kyo::Json::Value snapshot(kyo::Json::objectValue);
    std::string error = "the machine manifest cannot be used";
    if (path.empty() || !read(socket, path, snapshot, error)) {
        snapshot = kyo::Json::Value(kyo::Json::objectValue);
        snapshot["error"] = error;
    }
    std::ofstream out(file, std::ios::binary);
    out << tools::bundle(snapshot).toStyledString();
    out.close();
    if (!out) {
        std::fprintf(stderr, "vlm-status: %s cannot be written\n", file.c_str());
        return 1;
    }
    return 0;
}

/// On a terminal the line replaces the previous one; elsewhere it is a line of its own.
bool show(std::string line, bool terminal) {
    if (terminal) {
        winsize size{};
        if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && line.size() >= size.ws_col) {
            line.resize(size.ws_col - 1u);
        }
        line = "\r\033[K" + line;
    } else {
        line += "\n";
    }
    return std::fputs(line.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

/// Prints until the reader of our output is gone or the user stops it; survives restarts of vlmmaster.
int follow(const std::string& path, bool json, std::chrono::milliseconds period) {
    const bool terminal = ::isatty(STDOUT_FILENO) != 0 && !json;
    ara::stm::StateSocket socket;
    tools::LiveLine line;
    bool away = false;
    for (auto next = std::chrono::steady_clock::now();; next += period) {
        kyo::Json::Value snapshot;
        std::string error;
        bool shown = true;
        if (read(socket, path, snapshot, error)) {
            away = false;
            shown = show(json ? kyo::Json::FastWriter().write(snapshot)
                              : line.next(snapshot, std::chrono::steady_clock::now()),
                         terminal);
        } else if (json) {
            if (!away) {
                std::fprintf(stderr, "vlm-status: %s\n", error.c_str());
            }
            away = true;
        } else if (terminal || !away) {
            away = true;
            shown = show("waiting for vlmmaster at " + path, terminal);
        }
        if (!shown) {
            return 0;
        }
        std::this_thread::sleep_until(next + period);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-status")) {
        return 0;
    }
    try {
        cxxopts::Options options("vlm-status", "Prints vlmmaster's status, or follows it as one live line.");
        options.positional_help("[seconds]");
        options.add_options()("follow", "repeat every second, or at the given number of seconds")(
            "json", "the status as JSON")("openmetrics", "the status as OpenMetrics")(
            "prometheus", "the status in Prometheus's older text format")(
            "listen", "serve metrics over HTTP, for example at 127.0.0.1:9464; port 0: a free one",
            cxxopts::value<std::string>(),
            "ADDRESS:PORT")("bundle", "write what a bug report needs, without payloads, as JSON",
                            cxxopts::value<std::string>(), "FILE")(
            "socket", "path of the state socket; default: the machine manifest's",
            cxxopts::value<std::string>())("seconds", "", cxxopts::value<std::string>()->default_value("1"))(
            "h,help", "this help")("version", "print the version");
        options.parse_positional({"seconds"});
        const auto given = options.parse(argc, argv);
        if (given.count("help") != 0 || !given.unmatched().empty()) {
            std::fputs(options.help().c_str(), given.count("help") != 0 ? stdout : stderr);
            return given.count("help") != 0 ? 0 : 1;
        }
        const std::string seconds = given["seconds"].as<std::string>();
        char* end = nullptr;
        const double period = std::strtod(seconds.c_str(), &end);
        if (*end != '\0' || !std::isfinite(period) || period < 0.05 || period > 86'400) {
            std::fprintf(stderr, "vlm-status: from 0.05 to 86400 seconds are expected, not \"%s\"\n",
                         seconds.c_str());
            return 1;
        }
        const bool isBundle = given.count("bundle") != 0;
        const std::string path = given.count("socket") != 0 ? given["socket"].as<std::string>()
                                 : isBundle && !tools::namedManifestIsGood() ? ""
                                                                             : machine::stateSocketPath();
        if (given.count("listen") != 0) {
            return serveMetrics(path, given["listen"].as<std::string>());
        }
        if (isBundle) {
            return writeBundle(path, given["bundle"].as<std::string>());
        }
        const bool json = given.count("json") != 0;
        if (given.count("follow") != 0) {
            return follow(path, json, std::chrono::milliseconds(static_cast<long>(period * 1000)));
        }
        return printOnce(path, [&](const kyo::Json::Value& snapshot) {
            if (given.count("openmetrics") != 0 || given.count("prometheus") != 0) {
                return tools::metricsText(snapshot, given.count("openmetrics") != 0
                                                        ? tools::MetricFormat::OpenMetrics
                                                        : tools::MetricFormat::Prometheus);
            }
            return json ? kyo::Json::FastWriter().write(snapshot) + "\n" : tools::statusTable(snapshot);
        });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vlm-status: %s\n", error.what());
        return 1;
    }
}
