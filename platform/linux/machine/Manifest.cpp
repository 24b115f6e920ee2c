#include "machine/Manifest.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

#include "json/FieldReader.h"

namespace machine {

namespace {

using kyo::Json::Value;
using vlmProd::Field;

bool isIpv4(const std::string& text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool readIpv6(const std::string& text, in6_addr& out) {
    return ::inet_pton(AF_INET6, text.c_str(), &out) == 1;
}

/// Of a text that has passed the checks below.
bool usesIpv6(const std::string& text) {
    return text.find(':') != std::string::npos;
}

/// "192.168.1.1", "fd00::1", or "fe80::1%eth0". The interface may come later, or be another machine's.
bool isAddress(const std::string& text) {
    const auto percent = text.find('%');
    in6_addr address{};
    if (!readIpv6(text.substr(0, percent), address)) {
        return isIpv4(text);
    }
    const bool hasInterface = percent != std::string::npos;
    const std::string interface = hasInterface ? text.substr(percent + 1) : "";
    return !IN6_IS_ADDR_MULTICAST(&address) && hasInterface == bool{IN6_IS_ADDR_LINKLOCAL(&address)} &&
           hasInterface == !interface.empty() && interface.size() < IF_NAMESIZE &&
           interface.find_first_of("/ %") == std::string::npos;
}

/// An address and a number of bits: "127.0.0.0/8", "fd00::/64".
bool isNetwork(const std::string& text) {
    const auto slash = text.find('/');
    const std::string base = text.substr(0, slash);
    in6_addr address{};
    const bool ipv6 = readIpv6(base, address);
    if (slash == std::string::npos || (!ipv6 && !isIpv4(base))) {
        return false;
    }
    unsigned bits = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, bits);
    return error == std::errc() && stop == end && bits <= (ipv6 ? 128 : 32);
}

/// IPv6 has no broadcast.
bool isGroup(const std::string& text) {
    in6_addr address{};
    return isIpv4(text) || (readIpv6(text, address) && IN6_IS_ADDR_MULTICAST(&address));
}

/// "name", "name:port", "[IPv6 address]:port" or an IPv6 address.
bool readBroker(const std::string& text, std::uint16_t usualPort, BrokerAddress& out) {
    const auto closing = text.starts_with('[') ? text.find(']') : std::string::npos;
    const auto colon = closing == std::string::npos ? text.find(':') : closing + 1;
    if (closing != std::string::npos) {
        out.host = text.substr(1, closing - 1);
    } else if (colon != std::string::npos && text.find(':', colon + 1) != std::string::npos) {
        out = {text, usualPort};
        return text.front() != '[';
    } else {
        out.host = text.substr(0, colon);
    }
    out.port = usualPort;
    if (out.host.empty() || colon >= text.size()) {
        return !out.host.empty();
    }
    const char* const begin = text.data() + colon + 1;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(begin, end, out.port);
    return text[colon] == ':' && error == std::errc() && stop == end && out.port != 0;
}

constexpr std::uint32_t kDayMs = 86'400'000;

/// Reads a text for which `isGood` returns true.
void readChecked(const Field& field, std::string& out, bool (*isGood)(const std::string&),
                 const char* expected) {
    if (field.name(out)) {
        field.expect(isGood(out), expected);
    }
}

bool isFilled(const std::string& text) {
    return !text.empty();
}

void read(const Field& log, LogSettings& out) {
    log["maxLevel"].number(out.maxLevel, 0, 7);
    log["console"].flag(out.console);
    log["dlt"].flag(out.dlt);
    log["file"].name(out.file);
    log["fileLevel"].number(out.fileLevel, 0, 7);
    log["fileMaxBytes"].number(out.fileMaxBytes, 4096, std::uint64_t{1} << 40);
    log.refuseOthers();
}

void read(const Field& discovery, DiscoverySettings& out) {
    discovery["port"].number(out.port, 1);
    readChecked(discovery["group"], out.group, isGroup,
                "an IPv4 multicast group or broadcast address, or an IPv6 multicast group");
    discovery["ttlSeconds"].number(out.ttlSeconds, 1, 0xFF'FFFF);
    const Field initialDelayMin = discovery["initialDelayMinMs"];
    initialDelayMin.number(out.initialDelayMinMs, 0, kDayMs);
    discovery["initialDelayMaxMs"].number(out.initialDelayMaxMs, 0, kDayMs);
    discovery["repetitionBaseMs"].number(out.repetitionBaseMs, 1, kDayMs);
    discovery["repetitions"].number(out.repetitions, 0, 100);
    discovery["cyclicOfferMs"].number(out.cyclicOfferMs, 10, kDayMs);
    discovery.refuseOthers();
    initialDelayMin.expect(out.initialDelayMinMs <= out.initialDelayMaxMs,
                           "no more than initialDelayMaxMs (" + std::to_string(out.initialDelayMaxMs) + ")");
}

void read(const Field& someip, SomeIpSettings& out) {
    readChecked(someip["address"], out.address, isAddress,
                "an IPv4 or IPv6 address, with its interface if it is link-local (\"fe80::1%eth0\"),");
    someip["eventPort"].number(out.eventPort);
    someip["eventsOverTcp"].flag(out.eventsOverTcp);
    const Field network = someip["network"];
    readChecked(network, out.network, isNetwork,
                "an IPv4 or IPv6 network such as \"10.0.0.0/8\" or \"fd00::/64\"");
    const Field discovery = someip["discovery"];
    read(discovery, out.discovery);
    const bool ipv6 = usesIpv6(out.address);
    network.expect(usesIpv6(out.network) == ipv6,
                   ipv6 ? "an IPv6 network, as someip.address is an IPv6 address,"
                        : "an IPv4 network, as someip.address is an IPv4 address,");
    discovery["group"].expect(usesIpv6(out.discovery.group) == ipv6,
                              ipv6 ? "an IPv6 multicast group, as someip.address is an IPv6 address,"
                                   : "an IPv4 group, as someip.address is an IPv4 address,");
    someip["receiveBufferBytes"].number(out.receiveBufferBytes, 4096, 1u << 30);
    someip["maxSampleBytes"].number(out.maxSampleBytes, 1400, 1u << 30);
    someip["reassemblyTimeoutMs"].number(out.reassemblyTimeoutMs, 1, kDayMs);
    someip["maxOpenReassemblies"].number(out.maxOpenReassemblies, 1, 1u << 16);
    someip.refuseOthers();
}

void read(const Field& mqtt, MqttBackend& out) {
    constexpr auto isPrefix = [](const std::string& text) {
        return text.find_first_of("+#") == std::string::npos && (text.empty() || text.back() != '/');
    };
    readChecked(mqtt["host"], out.host, isFilled, "a host name or address");
    mqtt["port"].number(out.port, 1);
    if (const Field hosts = mqtt["hosts"]; !hosts.isAbsent()) {
        out.hosts.clear();
        for (const Field& host : hosts.elements("an array of \"host\" or \"host:port\"")) {
            BrokerAddress ignored;
            if (host.name(out.hosts.emplace_back())) {
                host.expect(readBroker(out.hosts.back(), 1, ignored), "\"host\" or \"host:port\"");
            }
        }
        hosts.expect(!out.hosts.empty(), "at least one host");
    }
    readChecked(mqtt["prefix"], out.prefix, isPrefix, "a topic without \"+\", \"#\" or a \"/\" at its end");
    mqtt["user"].name(out.user);
    mqtt["password"].name(out.password);
    mqtt["keepAliveSeconds"].number(out.keepAliveSeconds, 5, 65'535);
    const Field reconnectMin = mqtt["reconnectMinSeconds"];
    reconnectMin.number(out.reconnectMinSeconds, 1, 86'400);
    mqtt["reconnectMaxSeconds"].number(out.reconnectMaxSeconds, 1, 86'400);
    mqtt["tls"].flag(out.tls);
    mqtt["caFile"].name(out.caFile);
    mqtt["certFile"].name(out.certFile);
    mqtt["keyFile"].name(out.keyFile);
    mqtt.refuseOthers();
    reconnectMin.expect(out.reconnectMinSeconds <= out.reconnectMaxSeconds,
                        "no more than reconnectMaxSeconds (" + std::to_string(out.reconnectMaxSeconds) + ")");
    if (out.certFile.empty() != out.keyFile.empty()) {
        mqtt[out.certFile.empty() ? "certFile" : "keyFile"].fault(
            "a file is expected, as certFile and keyFile belong together");
    }
    if (!out.tls && (!out.caFile.empty() || !out.certFile.empty())) {
        mqtt["tls"].fault("true is expected where certificates are named");
    }
}

void read(const Field& spool, SpoolBackend& out) {
    constexpr auto isPolicy = [](const std::string& text) { return text == "oldest" || text == "newest"; };
    readChecked(spool["path"], out.path, isFilled, "the path of a folder");
    spool["maxBytes"].number(out.maxBytes, 1u << 20, std::uint64_t{1} << 40);
    spool["maxAgeSeconds"].number(out.maxAgeSeconds, 0, 3'153'600'000);
    readChecked(spool["whenFull"], out.whenFull, isPolicy, "\"oldest\" or \"newest\"");
    spool["resultTimeoutSeconds"].number(out.resultTimeoutSeconds, 1, 86'400);
    spool["window"].number(out.window, 1, 16);
    spool["drainJitterSeconds"].number(out.drainJitterSeconds, 0, 3'600);
    spool.refuseOthers();
}

void read(const Field& backend, BackendSettings& out) {
    constexpr auto isMethod = [](const std::string& text) { return text == "none" || text == "zstd"; };
    constexpr auto isTransport = [](const std::string& text) {
        return text == "directory" || text == "mqtt";
    };
    readChecked(backend["transport"], out.transport, isTransport, "\"directory\" or \"mqtt\"");
    backend["maxMasterControlBytes"].number(out.limits.masterControlBytes, 1024, 1u << 26);
    backend["maxConfigurationBytes"].number(out.limits.configurationBytes, 1024, 1u << 26);
    const Field directory = backend["directory"];
    readChecked(directory["path"], out.directory.path, isFilled, "the path of a folder");
    readChecked(directory["configuration"], out.directory.configuration, isFilled, "the path of a file");
    directory.refuseOthers();
    read(backend["mqtt"], out.mqtt);
    if (const Field spool = backend["spool"]; !spool.isAbsent()) {
        read(spool, out.spool.emplace());
    }
    const Field compression = backend["compression"];
    readChecked(compression["method"], out.compression.method, isMethod, "\"none\" or \"zstd\"");
    compression["level"].number(out.compression.level, 1, 19);
    compression["dictionary"].name(out.compression.dictionary);
    compression.refuseOthers();
    const Field remember = backend["remember"];
    if (const Field after = remember["afterSeconds"]; after.value().isNull() && !after.isAbsent()) {
        out.remember.afterSeconds.reset();
    } else if (!after.isAbsent()) {
        after.number(out.remember.afterSeconds.emplace(), 0, 86'400);
    }
    remember.refuseOthers();
    backend.refuseOthers();
}

void read(const Field& document, Manifest& out) {
    std::string schema;
    document["$schema"].text(schema);
    read(document["log"], out.log);
    read(document["someip"], out.someip);
    const Field state = document["state"];
    state["socket"].name(out.state.socket);
    state.refuseOthers();
    read(document["backend"], out.backend);
    document.refuseOthers();
}

/// Reads `value`, the part of the manifest at `path`, into a copy, so that a fault changes nothing.
template <typename Settings>
bool readInto(const Value& value, const char* path, Settings& out, std::string& error) {
    vlmProd::FieldReader reader("the manifest", vlmProd::Reading::Exact);
    Settings settings = out;
    read(reader.root(value, path), settings);
    error = reader.good() ? "" : reader.faults().front();
    if (reader.good()) {
        out = std::move(settings);
    }
    return reader.good();
}

/// Ends the process: no settings are better than unintended ones. Without exit handlers, as some of those
/// need the manifest too.
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
    return readInto(document, "", out, error);
}

bool readSomeIpSettings(const Value& section, SomeIpSettings& out, std::string& error) {
    return readInto(section, "someip", out, error);
}

std::vector<BrokerAddress> brokersOf(const MqttBackend& settings) {
    std::vector<BrokerAddress> brokers;
    for (const std::string& text : settings.hosts) {
        if (BrokerAddress broker; readBroker(text, settings.port, broker)) {
            brokers.push_back(std::move(broker));
        }
    }
    if (brokers.empty()) {
        brokers.push_back({settings.host, settings.port});
    }
    return brokers;
}

const Manifest& manifest() {
    // Never destroyed: threads that outlive main use it.
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
