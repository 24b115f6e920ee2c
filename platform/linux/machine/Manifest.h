#pragma once
/// The settings of this machine's platform, from the JSON file in the environment variable
/// VLM_MACHINE_MANIFEST. Every member has a default, which works on a single machine without a file.
/// docs/manifest.md describes each key. An unknown key or a wrong type is an error that names the key.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace machine {

struct LogSettings {
    int maxLevel = 7;                        ///< highest kyo reporting level
    bool console = true;                     ///< lines to standard output
    bool dlt = true;                         ///< messages to the DLT daemon
    std::string file;                        ///< path of a log file; empty: none
    int fileLevel = 7;                       ///< highest kyo level in that file
    std::uint64_t fileMaxBytes = 64u << 20;  ///< at that size it becomes "<file>.1", and a new one begins
};

struct DiscoverySettings {
    std::uint16_t port = 30490;
    std::string group = "127.255.255.255";  ///< multicast group, or IPv4 broadcast address
    std::uint32_t ttlSeconds = 3;
    std::uint32_t initialDelayMinMs = 10;
    std::uint32_t initialDelayMaxMs = 30;
    std::uint32_t repetitionBaseMs = 30;
    std::uint32_t repetitions = 3;
    std::uint32_t cyclicOfferMs = 1000;
};

struct SomeIpSettings {
    std::string address = "127.0.0.1";    ///< of the own interface
    std::uint16_t eventPort = 0;          ///< UDP and TCP port for event data; 0: any free one
    bool eventsOverTcp = false;           ///< as a server: all events, whatever their descriptions say
    std::string network = "127.0.0.0/8";  ///< peers outside it are ignored
    DiscoverySettings discovery;
    std::uint32_t receiveBufferBytes = 8u << 20;
    std::uint32_t maxSampleBytes = 1u << 20;  ///< largest reassembled message
    std::uint32_t reassemblyTimeoutMs = 500;
    std::uint32_t maxOpenReassemblies = 64;
};

struct StateSettings {
    std::string socket;  ///< path of the local socket for component states and status; empty: the default
};

struct DirectoryBackend {
    std::string path = "vlm-backend";  ///< folder for envelopes.jsonl; created if missing
    std::string configuration =
        "collector.json";  ///< collector configuration, relative to `path` or absolute
};

struct MqttBackend {
    std::string host = "127.0.0.1";
    std::uint16_t port = 1883;
    std::vector<std::string> hosts;  ///< "name" or "name:port", tried in turn; empty: `host` alone
    std::string prefix;              ///< topic prefix; empty: "vlm/<host name>"
    std::string user;
    std::string password;
    std::uint32_t keepAliveSeconds = 30;
    std::uint32_t reconnectMinSeconds = 1;
    std::uint32_t reconnectMaxSeconds = 30;
    bool tls = false;
    std::string caFile;    ///< PEM; server verification is always on with TLS
    std::string certFile;  ///< PEM; client certificate, with keyFile
    std::string keyFile;
};

/// How long a message of the backend may be; a longer one is refused before it is read.
struct MessageLimits {
    std::uint32_t masterControlBytes = 64u << 10;
    std::uint32_t configurationBytes = 8u << 20;  ///< of an answer, whose body is base64
};

struct SpoolBackend {
    std::string path = "vlm-spool";           ///< folder; created if missing
    std::uint64_t maxBytes = 512u << 20;      ///< of all files in it
    std::uint64_t maxAgeSeconds = 0;          ///< 0: none
    std::string whenFull = "oldest";          ///< drops "oldest" or "newest"
    std::uint32_t resultTimeoutSeconds = 60;  ///< then an envelope without a result is sent again
    std::uint32_t window = 16;                ///< at most so many envelopes await a result
    std::uint32_t drainJitterSeconds = 5;     ///< longest random wait before a backlog is sent
};

struct Compression {
    std::string method = "none";  ///< "none" or "zstd"
    int level = 1;
    std::string dictionary;  ///< number of a built-in one, or a file; empty: none
};

struct RememberBackend {
    std::optional<std::uint32_t> afterSeconds = 30;  ///< none: never
};

struct BackendSettings {
    std::string transport = "directory";  ///< "directory" or "mqtt"
    MessageLimits limits;
    DirectoryBackend directory;
    MqttBackend mqtt;
    std::optional<SpoolBackend> spool;  ///< none: envelopes wait for the broker in memory
    Compression compression;
    RememberBackend remember;  ///< only with a spool
};

struct Manifest {
    LogSettings log;
    SomeIpSettings someip;
    StateSettings state;
    BackendSettings backend;
};

/// Reads a manifest document into `out`, which keeps the defaults of absent members. Returns false, with the
/// key in `error` ("someip.discovery.port: a number from 1 to 65535 is expected"), for a wrong document.
bool readManifest(const kyo::Json::Value& document, Manifest& out, std::string& error);

/// Reads the "someip" section alone. `out` keeps its values for absent members, and all of them on failure.
bool readSomeIpSettings(const kyo::Json::Value& section, SomeIpSettings& out, std::string& error);

struct BrokerAddress {
    std::string host;
    std::uint16_t port = 0;
};

/// Returns the brokers that may be used, at least one, in the order in which they are tried.
std::vector<BrokerAddress> brokersOf(const MqttBackend& settings);

/// Returns the manifest of this process, read on first use from VLM_MACHINE_MANIFEST; the defaults without
/// it. A manifest that cannot be read or is wrong ends the process with status 1 and a message on standard
/// error with file, key and reason. Any thread may call it; the result never changes.
const Manifest& manifest();

/// Returns the path of the local socket: state.socket, else /run/vlmmaster/vlmmaster.sock if that folder can
/// be created, else /tmp/vlmmaster-<uid>/vlmmaster.sock.
std::string stateSocketPath();

}  // namespace machine
