#include "tools/state/Bundle.h"

#include <botan/hash.h>
#include <botan/hex.h>
#include <sys/utsname.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <regex>
#include <sstream>
#include <string_view>
#include <vector>

#include "base/FileText.h"
#include "base/Version.h"
#include "kyo/DateTime.h"
#include "machine/Manifest.h"

namespace tools {

namespace {

using kyo::Json::Value;

constexpr std::size_t kMostLines = 200;
constexpr char kCatalog[] = "/etc/VLM_Available_Signals_Catalog_20210311.json";

/// `command` is one of this file's own.
std::string outputOf(const char* command) {
    std::string text;
    // NOLINTNEXTLINE(cert-env33-c): nothing of it comes from outside
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command, "re"), ::pclose);
    std::array<char, 4096> buffer{};
    while (pipe != nullptr) {
        const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe.get());
        if (size == 0) {
            break;
        }
        text.append(buffer.data(), size);
    }
    return text;
}

/// The parts of a file of /proc whose parts end with a zero byte.
std::vector<std::string> zeroEnded(const std::string& path) {
    std::string text;
    vlmProd::readWholeFile(path, text);
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, '\0');) {
        parts.push_back(part);
    }
    return parts;
}

/// Size and SHA-256 of a file, or why there is none.
Value digestOf(const std::string& path) {
    Value digest(kyo::Json::objectValue);
    digest["path"] = path;
    std::string text;
    if (!vlmProd::readWholeFile(path, text)) {
        digest["error"] = "cannot be read";
        return digest;
    }
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    digest["bytes"] = static_cast<kyo::Json::UInt64>(text.size());
    digest["sha256"] = Botan::hex_encode(hash->final(), false);
    return digest;
}

/// How the running vlmmaster was started. Its files are empty where it does not run, or belongs to somebody
/// else.
struct Start {
    std::string manifest;
    std::string application;
    std::string collector;
};

Start startOf(const Value& status) {
    Start start;
    const Value& pid = status["process"]["pid"];
    if (!pid.isIntegral()) {
        return start;
    }
    const std::string folder = "/proc/" + std::to_string(pid.asInt64()) + '/';
    const auto absolute = [&folder](const std::string& path) {
        return path.empty() || path.front() == '/' ? path : folder + "cwd/" + path;
    };
    const auto arguments = zeroEnded(folder + "cmdline");
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == "-c" || arguments[i] == "--configfile") {
            start.application = absolute(arguments[i + 1]);
        } else if (arguments[i] == "-l" || arguments[i] == "--localFile") {
            start.collector = absolute(arguments[i + 1]);
        }
    }
    constexpr std::string_view kVariable = "VLM_MACHINE_MANIFEST=";
    for (const std::string& variable : zeroEnded(folder + "environ")) {
        if (variable.starts_with(kVariable)) {
            start.manifest = absolute(variable.substr(kVariable.size()));
        }
    }
    return start;
}

Value versions() {
    Value versions(kyo::Json::objectValue);
    versions["vlm-status"] = vlmProd::version();
    utsname system{};
    if (::uname(&system) == 0) {
        versions["kernel"] = std::string(system.release) + ' ' + system.machine;
    }
    std::istringstream packages(
        outputOf("dpkg-query -W -f '${Package} ${Version} ${Architecture}\\n' 'vlmmaster*' 2>/dev/null"));
    versions["packages"] = Value(kyo::Json::arrayValue);
    for (std::string line; std::getline(packages, line);) {
        versions["packages"].append(line);
    }
    std::string release;
    vlmProd::readWholeFile("/etc/os-release", release);
    std::smatch name;
    if (std::regex_search(release, name, std::regex("PRETTY_NAME=\"?([^\"\n]*)"))) {
        versions["system"] = name[1].str();
    }
    return versions;
}

/// The file in which the running vlmmaster logs, by its manifest; empty: none.
std::string logFileOf(const std::string& manifest) {
    std::string text;
    Value document;
    machine::Manifest settings;
    std::string error;
    if (manifest.empty() || !vlmProd::readWholeFile(manifest, text) ||
        !kyo::Json::Reader().parse(text, document) || !machine::readManifest(document, settings, error)) {
        return "";
    }
    return settings.log.file;
}

}  // namespace

Value faultLines(const std::string& log) {
    static const std::regex faults("\\b(FATAL|ERROR|WARN)\\b|systemd\\[");
    static const std::regex quoted("\"[^\"]*\"");
    std::deque<std::string> last;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        if (!std::regex_search(line, faults)) {
            continue;
        }
        line = std::regex_replace(line.substr(0, line.find_first_of("{[", line.find("]:") + 1)), quoted,
                                  "\"...\"");
        last.push_back(line.substr(0, 500));
        if (last.size() > kMostLines) {
            last.pop_front();
        }
    }
    Value lines(kyo::Json::arrayValue);
    for (const std::string& line : last) {
        lines.append(line);
    }
    return lines;
}

Value bundle(const Value& status) {
    Value all(kyo::Json::objectValue);
    all["timeMs"] = static_cast<kyo::Json::Int64>(kyo::DateTime::getCurrentTimeMs());
    all["versions"] = versions();
    all["status"] = status;
    const Start start = startOf(status);
    Value& files = all["configuration"] = Value(kyo::Json::objectValue);
    for (const auto& [name, path] : {std::pair<const char*, std::string>{"manifest", start.manifest},
                                     {"application", start.application},
                                     {"collector", start.collector},
                                     {"catalog", kCatalog}}) {
        if (!path.empty()) {
            files[name] = digestOf(path);
        }
    }
    std::string log;
    if (const std::string file = logFileOf(start.manifest); !file.empty()) {
        vlmProd::readWholeFile(file, log);
    } else {
        log = outputOf("journalctl -u vlmmaster -n 1000 -o short-iso --no-pager 2>/dev/null");
    }
    all["log"] = faultLines(log);
    return all;
}

}  // namespace tools
