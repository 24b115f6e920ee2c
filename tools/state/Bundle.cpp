#include "tools/state/Bundle.h"

#include <botan/base64.h>
#include <botan/hash.h>
#include <botan/hex.h>
#include <sys/utsname.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
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
constexpr char kVariable[] = "VLM_MACHINE_MANIFEST";
constexpr char kCatalog[] = "/etc/VLM_Available_Signals_Catalog_20210311.json";
// The package's.
constexpr char kManifest[] = "/etc/vlmmaster/machine-manifest.json";
constexpr char kApplication[] = "/etc/vlmmaster/application.json";
constexpr char kWorkingFolder[] = "/var/lib/vlmmaster/";

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

void describe(Value& digest, const std::string& text) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    digest["bytes"] = static_cast<kyo::Json::UInt64>(text.size());
    digest["sha256"] = Botan::hex_encode(hash->final(), false);
}

/// Size and SHA-256 of a file, or why there is none.
Value digestOf(const std::string& path) {
    Value digest(kyo::Json::objectValue);
    digest["path"] = path;
    if (std::string text; vlmProd::readWholeFile(path, text)) {
        describe(digest, text);
    } else {
        digest["error"] = "cannot be read";
    }
    return digest;
}

/// The record and the digest of the backend's configuration that is kept in this file beside the spool.
Value rememberedIn(const std::string& path) {
    Value digest = digestOf(path);
    std::string text;
    Value record;
    if (vlmProd::readWholeFile(path, text) && kyo::Json::Reader().parse(text, record) && record.isObject()) {
        try {
            const auto bytes = Botan::base64_decode(record["recordBody"].asString(), true);
            digest["recordId"] = record["recordId"].asString();
            describe(digest, {bytes.begin(), bytes.end()});
        } catch (const std::exception&) {
            digest["error"] = "is no configuration";
        }
    }
    return digest;
}

/// How the running vlmmaster was started. Where it does not run, or belongs to somebody else: how the package
/// starts it, with the manifest that this program's environment names.
struct Start {
    std::string folder;  ///< ends with '/'
    std::string manifest;
    std::string application;
    std::string collector;

    std::string absolute(const std::string& path) const {
        return path.empty() || path.front() == '/' ? path : folder + path;
    }
};

Start startOf(const Value& status) {
    const Value& pid = status["process"]["pid"];
    const std::string process = "/proc/" + (pid.isIntegral() ? std::to_string(pid.asInt64()) : "none") + '/';
    const auto arguments = zeroEnded(process + "cmdline");
    if (arguments.empty()) {
        const char* const named = std::getenv(kVariable);
        return {kWorkingFolder, named != nullptr && *named != '\0' ? named : kManifest, kApplication, ""};
    }
    Start start;
    start.folder = process + "cwd/";
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == "-c" || arguments[i] == "--configfile") {
            start.application = start.absolute(arguments[i + 1]);
        } else if (arguments[i] == "-l" || arguments[i] == "--localFile") {
            start.collector = start.absolute(arguments[i + 1]);
        }
    }
    const std::string assignment = std::string(kVariable) + '=';
    for (const std::string& variable : zeroEnded(process + "environ")) {
        if (variable.starts_with(assignment)) {
            start.manifest = start.absolute(variable.substr(assignment.size()));
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

/// The settings in a manifest. The defaults without one, or with the reason in `fault` when it cannot be
/// used; that names the field and no value.
machine::Manifest settingsIn(const std::string& manifest, std::string& fault) {
    std::string text;
    Value document;
    machine::Manifest settings;
    if (manifest.empty()) {
        return settings;
    }
    if (!vlmProd::readWholeFile(manifest, text)) {
        fault = "cannot be read";
    } else if (!kyo::Json::Reader().parse(text, document)) {
        fault = "is not JSON";
    } else if (std::string error; !machine::readManifest(document, settings, error)) {
        fault = "is wrong at " + error.substr(0, error.find(':'));
    }
    return fault.empty() ? settings : machine::Manifest{};
}

/// The last lines of a log about faults and starts, without what they quote.
Value tellingLines(const std::string& log) {
    // A console has names of levels, a file their numbers; lines of samples have none of these. The journal
    // puts something before a line, and has those of systemd and of a start that came to no log.
    static const std::regex journal(R"(^\S+ \S+ \S+\[\d+\]: )");
    static const std::regex level(R"(^\d{4}-\d\d-\d\d [\d:.]+ (?:(?:[1-4]|FATAL|ERROR|WARN) |)"
                                  R"((?:5|INFO) +int main\(int, char\*\*\) (?!Sleeping)))");
    static const std::regex other("^(?:The machine manifest |\\S+: error while loading)");
    static const std::regex quoted("\"[^\"]*\"?");
    std::deque<std::string> last;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        std::smatch found;
        const std::string head = std::regex_search(line, found, journal) ? found.str() : "";
        std::string text = line.substr(head.size());
        if (!std::regex_search(text, level) && head.find(" systemd[") == std::string::npos &&
            (head.empty() || !std::regex_search(text, other))) {
            continue;
        }
        text = std::regex_replace(text.substr(0, text.find_first_of("{[")), quoted, "\"...\"");
        last.push_back((head + text).substr(0, 500));
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

}  // namespace

bool namedManifestIsGood() {
    const char* const named = std::getenv(kVariable);
    std::string fault;
    settingsIn(named != nullptr ? named : "", fault);
    return fault.empty();
}

Value bundle(const Value& status) {
    Value all(kyo::Json::objectValue);
    all["timeMs"] = static_cast<kyo::Json::Int64>(kyo::DateTime::getCurrentTimeMs());
    all["versions"] = versions();
    all["status"] = status;
    const Start start = startOf(status);
    std::string fault;
    const machine::Manifest settings = settingsIn(start.manifest, fault);
    Value& files = all["configuration"] = Value(kyo::Json::objectValue);
    for (const auto& [name, path] : {std::pair<const char*, std::string>{"manifest", start.manifest},
                                     {"application", start.application},
                                     {"collector", start.collector},
                                     {"catalog", kCatalog}}) {
        if (!path.empty()) {
            files[name] = digestOf(path);
        }
    }
    if (!fault.empty()) {
        files["manifest"]["error"] = fault;
    }
    if (settings.backend.spool) {
        files["remembered"] =
            rememberedIn(start.absolute(settings.backend.spool->path) + "/configuration.json");
    }
    std::string file;
    vlmProd::readWholeFile(start.absolute(settings.log.file), file);
    all["log"] =
        tellingLines(outputOf("journalctl -u vlmmaster -n 1000 -o short-iso --no-pager 2>/dev/null") + file);
    return all;
}

}  // namespace tools
