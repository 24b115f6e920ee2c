#include "machine/Manifest.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <utility>

namespace machine {

namespace {

using kyo::Json::Value;

bool isIpv4(const std::string& text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

/// "127.0.0.0/8"
bool isIpv4Network(const std::string& text) {
    const auto slash = text.find('/');
    if (slash == std::string::npos || !isIpv4(text.substr(0, slash))) {
        return false;
    }
    const std::string length = text.substr(slash + 1);
    if (length.empty() || length.size() > 2 || length.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    return std::stoi(length) <= 32;
}

/// Reads one JSON object member by member. The first fault is kept with its dotted path; what follows it
/// does nothing.
class Section {
  public:
    using Reading = std::pair<std::string_view, std::function<void(const Value&, const std::string& path)>>;

    explicit Section(std::string& error) : m_error(error) {}

    bool good() const { return m_error.empty(); }

    void fail(const std::string& path, std::string_view expected) {
        if (good()) {
            m_error = (path.empty() ? std::string("the manifest") : path) + ": " + std::string(expected);
        }
    }

    /// Every member of `object` must be one of `known`.
    void read(const Value& object, const std::string& path, std::initializer_list<Reading> known) {
        if (!object.isObject()) {
            fail(path, "an object is expected");
            return;
        }
        for (auto member = object.begin(); good() && member != object.end(); ++member) {
            const std::string name = member.name();
            const std::string here = path.empty() ? name : path + "." + name;
            const Reading* found = nullptr;
            for (const Reading& reading : known) {
                if (reading.first == name) {
                    found = &reading;
                }
            }
            if (found != nullptr) {
                found->second(*member, here);
                continue;
            }
            std::string names;
            for (const Reading& reading : known) {
                if (reading.first.front() != '$') {
                    names += (names.empty() ? "" : ", ") + std::string(reading.first);
                }
            }
            fail(here, "no such key; known here are " + names);
        }
    }

    auto flag(bool& out) {
        return [this, &out](const Value& value, const std::string& path) {
            if (!value.isBool()) {
                fail(path, "true or false is expected");
                return;
            }
            out = value.asBool();
        };
    }

    auto text(std::string& out) {
        return [this, &out](const Value& value, const std::string& path) {
            if (!value.isString()) {
                fail(path, "a text is expected");
                return;
            }
            out = value.asString();
            if (out.find('\0') != std::string::npos) {
                fail(path, "a text without zero bytes is expected");
            }
        };
    }

    auto checkedText(std::string& out, bool (*isGood)(const std::string&), const char* expected) {
        return [this, &out, isGood, expected, read = text(out)](const Value& value, const std::string& path) {
            read(value, path);
            if (good() && !isGood(out)) {
                fail(path, expected);
            }
        };
    }

    template <typename Number>
    auto number(Number& out, std::uint64_t least = 0,
                std::uint64_t most = std::numeric_limits<Number>::max()) {
        return [this, &out, least, most](const Value& value, const std::string& path) {
            // A real such as 5.0 counts as a whole number; true does not count as 1.
            if (value.isBool() || !value.isUInt64() || value.asUInt64() < least || value.asUInt64() > most) {
                fail(path, "a number from " + std::to_string(least) + " to " + std::to_string(most) +
                               " is expected");
                return;
            }
            out = static_cast<Number>(value.asUInt64());
        };
    }

  private:
    std::string& m_error;
};

constexpr std::uint64_t kDayMs = 86'400'000;

void readLog(Section& section, const Value& value, const std::string& path, LogSettings& out) {
    section.read(value, path,
                 {{"maxLevel", section.number(out.maxLevel, 0, 7)},
                  {"console", section.flag(out.console)},
                  {"dlt", section.flag(out.dlt)},
                  {"file", section.text(out.file)},
                  {"fileLevel", section.number(out.fileLevel, 0, 7)},
                  {"fileMaxBytes", section.number(out.fileMaxBytes, 4096, std::uint64_t{1} << 40)}});
}

void readDiscovery(Section& section, const Value& value, const std::string& path, DiscoverySettings& out) {
    section.read(value, path,
                 {{"port", section.number(out.port, 1)},
                  {"group", section.checkedText(out.group, isIpv4,
                                                "an IPv4 multicast group or broadcast address is expected")},
                  {"ttlSeconds", section.number(out.ttlSeconds, 1, 0xFF'FFFF)},
                  {"initialDelayMinMs", section.number(out.initialDelayMinMs, 0, kDayMs)},
                  {"initialDelayMaxMs", section.number(out.initialDelayMaxMs, 0, kDayMs)},
                  {"repetitionBaseMs", section.number(out.repetitionBaseMs, 1, kDayMs)},
                  {"repetitions", section.number(out.repetitions, 0, 100)},
                  {"cyclicOfferMs", section.number(out.cyclicOfferMs, 10, kDayMs)}});
    if (section.good() && out.initialDelayMinMs > out.initialDelayMaxMs) {
        section.fail(
            path + ".initialDelayMinMs",
            "no more than initialDelayMaxMs (" + std::to_string(out.initialDelayMaxMs) + ") is expected");
    }
}

void readSomeIp(Section& section, const Value& value, const std::string& path, SomeIpSettings& out) {
    section.read(value, path,
                 {{"address", section.checkedText(out.address, isIpv4, "an IPv4 address is expected")},
                  {"eventPort", section.number(out.eventPort)},
                  {"network", section.checkedText(out.network, isIpv4Network,
                                                  "an IPv4 network such as \"10.0.0.0/8\" is expected")},
                  {"discovery",
                   [&section, &out](const Value& inner, const std::string& innerPath) {
                       readDiscovery(section, inner, innerPath, out.discovery);
                   }},
                  {"receiveBufferBytes", section.number(out.receiveBufferBytes, 4096, 1u << 30)},
                  {"maxSampleBytes", section.number(out.maxSampleBytes, 1400, 1u << 30)},
                  {"reassemblyTimeoutMs", section.number(out.reassemblyTimeoutMs, 1, kDayMs)},
                  {"maxOpenReassemblies", section.number(out.maxOpenReassemblies, 1, 1u << 16)}});
}

void readMqtt(Section& section, const Value& value, const std::string& path, MqttBackend& out) {
    constexpr auto isPrefix = [](const std::string& text) {
        return text.find_first_of("+#") == std::string::npos && (text.empty() || text.back() != '/');
    };
    constexpr auto isHost = [](const std::string& text) { return !text.empty(); };
    section.read(
        value, path,
        {{"host", section.checkedText(out.host, isHost, "a host name or address is expected")},
         {"port", section.number(out.port, 1)},
         {"prefix", section.checkedText(out.prefix, isPrefix,
                                        "a topic without \"+\", \"#\" or a \"/\" at its end is expected")},
         {"user", section.text(out.user)},
         {"password", section.text(out.password)},
         {"keepAliveSeconds", section.number(out.keepAliveSeconds, 5, 65'535)},
         {"reconnectMinSeconds", section.number(out.reconnectMinSeconds, 1, 86'400)},
         {"reconnectMaxSeconds", section.number(out.reconnectMaxSeconds, 1, 86'400)},
         {"tls", section.flag(out.tls)},
         {"caFile", section.text(out.caFile)},
         {"certFile", section.text(out.certFile)},
         {"keyFile", section.text(out.keyFile)}});
    if (!section.good()) {
        return;
    }
    if (out.reconnectMinSeconds > out.reconnectMaxSeconds) {
        section.fail(
            path + ".reconnectMinSeconds",
            "no more than reconnectMaxSeconds (" + std::to_string(out.reconnectMaxSeconds) + ") is expected");
    } else if (out.certFile.empty() != out.keyFile.empty()) {
        section.fail(path + (out.certFile.empty() ? ".certFile" : ".keyFile"),
                     "a file is expected, as certFile and keyFile belong together");
    } else if (!out.tls && (!out.caFile.empty() || !out.certFile.empty())) {
        section.fail(path + ".tls", "true is expected where certificates are named");
    }
}

void readSpool(Section& section, const Value& value, const std::string& path, SpoolBackend& out) {
    constexpr auto isPath = [](const std::string& text) { return !text.empty(); };
    constexpr auto isPolicy = [](const std::string& text) { return text == "oldest" || text == "newest"; };
    section.read(
        value, path,
        {{"path", section.checkedText(out.path, isPath, "the path of a folder is expected")},
         {"maxBytes", section.number(out.maxBytes, 1u << 20, std::uint64_t{1} << 40)},
         {"maxAgeSeconds", section.number(out.maxAgeSeconds, 0, 3'153'600'000)},
         {"whenFull", section.checkedText(out.whenFull, isPolicy, "\"oldest\" or \"newest\" is expected")},
         {"resultTimeoutSeconds", section.number(out.resultTimeoutSeconds, 1, 86'400)},
         {"window", section.number(out.window, 1, 16)},
         {"drainJitterSeconds", section.number(out.drainJitterSeconds, 0, 3'600)}});
}

void readBackend(Section& section, const Value& value, const std::string& path, BackendSettings& out) {
    constexpr auto isTransport = [](const std::string& text) {
        return text == "directory" || text == "mqtt";
    };
    constexpr auto isPath = [](const std::string& text) { return !text.empty(); };
    constexpr auto isMethod = [](const std::string& text) { return text == "none" || text == "zstd"; };
    section.read(
        value, path,
        {{"transport",
          section.checkedText(out.transport, isTransport, "\"directory\" or \"mqtt\" is expected")},
         {"directory",
          [&](const Value& inner, const std::string& innerPath) {
              section.read(inner, innerPath,
                           {{"path", section.checkedText(out.directory.path, isPath,
                                                         "the path of a folder is expected")},
                            {"configuration", section.checkedText(out.directory.configuration, isPath,
                                                                  "the path of a file is expected")}});
          }},
         {"mqtt", [&](const Value& inner,
                      const std::string& innerPath) { readMqtt(section, inner, innerPath, out.mqtt); }},
         {"spool",
          [&](const Value& inner, const std::string& innerPath) {
              readSpool(section, inner, innerPath, out.spool.emplace());
          }},
         {"compression",
          [&](const Value& inner, const std::string& innerPath) {
              section.read(inner, innerPath,
                           {{"method", section.checkedText(out.compression.method, isMethod,
                                                           "\"none\" or \"zstd\" is expected")},
                            {"level", section.number(out.compression.level, 1, 19)}});
          }},
         {"remember", [&](const Value& inner, const std::string& innerPath) {
              section.read(inner, innerPath,
                           {{"afterSeconds", [&](const Value& seconds, const std::string& at) {
                                 if (seconds.isNull()) {
                                     out.remember.afterSeconds.reset();
                                 } else {
                                     section.number(out.remember.afterSeconds.emplace(), 0, 86'400)(seconds,
                                                                                                    at);
                                 }
                             }}});
          }}});
}

/// Ends the process: nothing sensible can be done with settings that nobody meant. Without exit handlers, as
/// some of those ask for the manifest too.
[[noreturn]] void refuse(const std::string& file, const std::string& reason) {
    std::fprintf(stderr, "The machine manifest %s (VLM_MACHINE_MANIFEST) cannot be used: %s\n", file.c_str(),
                 reason.c_str());
    std::fflush(nullptr);
    std::_Exit(1);
}

Manifest load() {
    Manifest result;
    const char* const file = std::getenv("VLM_MACHINE_MANIFEST");
    if (file == nullptr || *file == '\0') {
        return result;
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        refuse(file, std::strerror(errno));
    }
    Value document;
    kyo::Json::Reader reader;
    if (!reader.parse(stream, document, false)) {
        refuse(file, reader.getFormattedErrorMessages());
    }
    std::string error;
    if (!readManifest(document, result, error)) {
        refuse(file, error);
    }
    return result;
}

}  // namespace

bool readManifest(const Value& document, Manifest& out, std::string& error) {
    Manifest read = out;
    error.clear();
    Section section(error);
    std::string schema;  // "$schema" is for editors
    section.read(
        document, "",
        {{"log", [&](const Value& v, const std::string& path) { readLog(section, v, path, read.log); }},
         {"someip",
          [&](const Value& v, const std::string& path) { readSomeIp(section, v, path, read.someip); }},
         {"state",
          [&](const Value& v, const std::string& path) {
              section.read(v, path, {{"socket", section.text(read.state.socket)}});
          }},
         {"backend",
          [&](const Value& v, const std::string& path) { readBackend(section, v, path, read.backend); }},
         {"$schema", section.text(schema)}});
    if (!section.good()) {
        return false;
    }
    out = std::move(read);
    return true;
}

bool readSomeIpSettings(const Value& document, SomeIpSettings& out, std::string& error) {
    SomeIpSettings read = out;
    error.clear();
    Section section(error);
    readSomeIp(section, document, "someip", read);
    if (!section.good()) {
        return false;
    }
    out = std::move(read);
    return true;
}

const Manifest& manifest() {
    // Never destroyed: threads that outlive main ask for it.
    static const Manifest* const instance = new Manifest(load());
    return *instance;
}

std::string stateSocketPath() {
    constexpr const char* kRunFolder = "/run/vlmmaster";
    constexpr const char* kName = "/vlmmaster.sock";
    const std::string& chosen = manifest().state.socket;
    if (!chosen.empty()) {
        return chosen;
    }
    const bool made = ::mkdir(kRunFolder, S_IRWXU) == 0 || errno == EEXIST;
    if (made && ::access(kRunFolder, W_OK | X_OK) == 0) {
        return std::string(kRunFolder) + kName;
    }
    return "/tmp/vlmmaster-" + std::to_string(::geteuid()) + kName;
}

}  // namespace machine
