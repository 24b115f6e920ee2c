#include "tools/state/Exporter.h"

#include <httplib.h>

#include <charconv>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "tools/state/Metrics.h"

namespace tools {

namespace {

constexpr int kThreads = 2;
constexpr time_t kPatienceSeconds = 5;
constexpr std::size_t kMostBytes = 4096;  ///< of a request's content, which nobody needs

bool split(const std::string& listen, std::string& address, int& port) {
    const auto colon = listen.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    address = listen.substr(0, colon);
    if (address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
    }
    const char* const end = listen.data() + listen.size();
    const auto [stop, fault] = std::from_chars(listen.data() + colon + 1, end, port);
    return fault == std::errc() && stop == end && port >= 0 && port <= 65535;
}

}  // namespace

bool exportMetrics(const std::string& listen, const ReadStatus& read, std::string& error) {
    std::string address;
    int port = 0;
    if (!split(listen, address, port)) {
        error = "\"" + listen + "\" is no address and port such as 127.0.0.1:9464";
        return false;
    }
    std::mutex reading;
    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    server.set_read_timeout(kPatienceSeconds);
    server.set_write_timeout(kPatienceSeconds);
    server.set_keep_alive_timeout(kPatienceSeconds);
    server.set_payload_max_length(kMostBytes);
    server.Get("/metrics", [&](const httplib::Request& request, httplib::Response& response) {
        kyo::Json::Value snapshot;
        {
            const std::lock_guard<std::mutex> lock(reading);
            snapshot = read();
        }
        const bool open =
            request.get_header_value("Accept").find("application/openmetrics-text") != std::string::npos;
        response.set_content(
            metricsText(snapshot, open ? MetricFormat::OpenMetrics : MetricFormat::Prometheus),
            open ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                 : "text/plain; version=0.0.4; charset=utf-8");
    });
    if (port == 0) {
        port = server.bind_to_any_port(address);
    } else if (!server.bind_to_port(address, port)) {
        port = -1;
    }
    if (port < 0) {
        error = "cannot listen at " + listen;
        return false;
    }
    std::printf("metrics at http://%s:%d/metrics\n", address.c_str(), port);
    std::fflush(stdout);
    if (!server.listen_after_bind()) {
        error = "cannot serve at " + listen;
        return false;
    }
    return true;
}

}  // namespace tools
