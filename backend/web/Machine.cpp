#include "backend/web/Machine.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <string_view>

namespace vlmBackend::web {

namespace {

constexpr std::size_t kMostLines = 200;
constexpr std::streamoff kTail = 1 << 20;
constexpr std::size_t kLongestLine = 1000;
constexpr std::chrono::seconds kLongestAnswer{2};

/// Whether it begins as the log file's lines do ("2026-03-11 14:05:09.123 3 text") with a level from 1 to 3;
/// others go on with a line before, or are of no concern.
bool isImportant(std::string_view line) {
    constexpr std::string_view form = "0000-00-00 00:00:00.000 ";
    if (line.size() <= form.size() + 1 || line[form.size() + 1] != ' ') {
        return false;
    }
    const bool begins = std::equal(form.begin(), form.end(), line.begin(), [](char wanted, char found) {
        return wanted == '0' ? std::isdigit(static_cast<unsigned char>(found)) != 0 : wanted == found;
    });
    return begins && line[form.size()] >= '1' && line[form.size()] <= '3';
}

}  // namespace

std::vector<std::string> Machine::importantLines(const std::string& logFile) {
    std::vector<std::string> lines;
    std::ifstream file(logFile, std::ios::binary | std::ios::ate);
    if (!file) {
        return lines;
    }
    file.seekg(std::max<std::streamoff>(0, static_cast<std::streamoff>(file.tellg()) - kTail));
    // The first line of a tail may lack its beginning; then it has not the form.
    for (std::string line; std::getline(file, line);) {
        if (isImportant(line)) {
            lines.push_back(line.substr(0, kLongestLine));
        }
    }
    if (lines.size() > kMostLines) {
        lines.erase(lines.begin(), lines.end() - kMostLines);
    }
    return lines;
}

kyo::Json::Value Machine::state() {
    kyo::Json::Value request;
    request["request"] = "status";
    kyo::Json::Value out;
    kyo::Json::Value answer;
    std::string reason;
    const std::lock_guard<std::mutex> lock(m_mutex);
    bool good = m_socket.connected() && m_socket.ask(request, answer, reason, kLongestAnswer);
    if (!good) {  // not yet connected, or to a vlmmaster that has ended
        good = m_socket.connect(m_path, reason) && m_socket.ask(request, answer, reason, kLongestAnswer);
    }
    out["running"] = good;
    out["reason"] = good ? "" : reason;
    const kyo::Json::Value& inner = good && answer.isMember("status") ? answer["status"] : answer;
    out["status"] = good ? inner : kyo::Json::Value(kyo::Json::objectValue);
    return out;
}

void Machine::addRoutes(Router& router) {
    router.add("GET", "/api/machine", Role::View, [this](const Request&) {
        if (!isKnown()) {
            throw Problem(404, "vlm-backend runs without --machine, so it knows no vlmmaster");
        }
        kyo::Json::Value out = state();
        kyo::Json::Value& lines = out["lines"] = kyo::Json::Value(kyo::Json::arrayValue);
        for (const std::string& line : importantLines(m_logFile)) {
            lines.append(line);
        }
        return Response::of(out);
    });
}

}  // namespace vlmBackend::web
