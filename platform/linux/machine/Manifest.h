#pragma once
/// What this machine's platform needs to know: one JSON file named by the environment variable
/// VLM_MACHINE_MANIFEST. Every member has a default that works on one machine without a file.
/// docs/manifest.md describes each key; an unknown key or a wrong type is an error that names it.
#include <cstdint>
#include <optional>
#include <string>

#include "kyo/Json.h"

namespace machine {

struct LogSettings {
    int maxLevel = 7;                        ///< cap on the kyo reporting level
    bool console = true;                     ///< lines to standard output
    bool dlt = true;                         ///< messages to the DLT daemon
    std::string file;                        ///< path of a log file; empty: none
    int fileLevel = 7;                       ///< highest kyo level in that file
    std::uint64_t fileMaxBytes = 64u << 20;  ///< at that size the file is kept as "<file>.1" and begun anew
};

struct DiscoverySettings {
    std::uint16_t port = 30490;
    std::string group = "127.255.255.255";  ///< IPv4 multicast group or broadcast address
    std::uint32_t ttlSeconds = 3;
    std::uint32_t initialDelayMinMs = 10;
    std::uint32_t initialDelayMaxMs = 30;
    std::uint32_t repetitionBaseMs = 30;
    std::uint32_t repetitions = 3;
    std::uint32_t cyclicOfferMs = 1000;
};

struct SomeIpSettings {
    std::string address = "127.0.0.1";    ///< IPv4 address of the interface that this process speaks from
    std::uint16_t eventPort = 0;          ///< UDP port for event data; 0: any free one
    std::string network = "127.0.0.0/8";  ///< peers outside it are not heard
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
    std::string path = "vlm-backend";  ///< folder for envelopes.jsonl; made when missing
    std::string configuration =
        "collector.json";  ///< collector configuration, relative to `path` or absolute
};

struct MqttBackend {
    std::string host = "127.0.0.1";
    std::uint16_t port = 1883;
    std::string prefix;  ///< topic prefix; empty: "vlm/<host name>"
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
    std::string path = "vlm-spool";           ///< folder; made when missing
    std::uint64_t maxBytes = 512u << 20;      ///< of all that is in it
    std::uint64_t maxAgeSeconds = 0;          ///< 0: none
    std::string whenFull = "oldest";          ///< "oldest" or "newest" is dropped
    std::uint32_t resultTimeoutSeconds = 60;  ///< without a result by then an envelope is sent again
    std::uint32_t window = 16;                ///< most envelopes on their way at a time
    std::uint32_t drainJitterSeconds = 5;     ///< longest random wait before a backlog is sent
};

struct Compression {
    std::string method = "none";  ///< "none" or "zstd"
    int level = 3;
};

struct RememberBackend {
    std::optional<std::uint32_t> afterSeconds = 30;  ///< none: never
};

struct BackendSettings {
    std::string transport = "directory";  ///< "directory" or "mqtt"
    MessageLimits limits;
    DirectoryBackend directory;
    MqttBackend mqtt;
    std::optional<SpoolBackend> spool;  ///< none: what waits for the broker waits in memory
    Compression compression;
    RememberBackend remember;  ///< without a spool nothing is remembered
};

struct Manifest {
    LogSettings log;
    SomeIpSettings someip;
    StateSettings state;
    BackendSettings backend;
};

/// Reads a manifest document into `out`, keeping the defaults of absent members. False with `error` naming
/// the key ("someip.discovery.port: a number from 1 to 65535 is expected") when it is not good.
bool readManifest(const kyo::Json::Value& document, Manifest& out, std::string& error);

/// The same for the "someip" section alone. `out` keeps its values for absent members and is untouched on
/// failure.
bool readSomeIpSettings(const kyo::Json::Value& section, SomeIpSettings& out, std::string& error);

/// The manifest of this process: loaded on first use from VLM_MACHINE_MANIFEST, defaults without it.
/// A manifest that cannot be read or is wrong ends the process with status 1 and a message on standard
/// error that names file, key and reason. Thread-safe; never changes afterwards.
const Manifest& manifest();

/// The local socket's path after defaults: state.socket, else /run/vlmmaster/vlmmaster.sock where that
/// folder can be made, else /tmp/vlmmaster-<uid>/vlmmaster.sock.
std::string stateSocketPath();

}  // namespace machine
