// A wrong manifest is refused, with the wrong key.
#include "machine/Manifest.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

using machine::Manifest;
using namespace vlmTest;

namespace {

void read(const std::string& text, Manifest& manifest) {
    std::string error = "old";
    EXPECT_TRUE(machine::readManifest(valueOf(text), manifest, error)) << error;
    EXPECT_EQ(error, "");
}

}  // namespace

TEST(Manifest, AnEmptyObjectKeepsTheDefaultsAndGivenMembersReplaceThem) {
    Manifest manifest;
    read("{}", manifest);
    EXPECT_EQ(manifest.someip.discovery.port, 30490);

    read(R"({
        "$schema": "x",
        "log": {"maxLevel": 5, "console": false, "dlt": false, "file": "/a", "fileLevel": 3, "fileMaxBytes": 1000000},
        "someip": {"address": "192.168.7.2", "eventPort": 40001, "network": "192.168.7.0/24",
                   "discovery": {"port": 30491, "group": "224.244.224.245", "ttlSeconds": 16777215,
                                 "repetitions": 0, "cyclicOfferMs": 2000},
                   "receiveBufferBytes": 65536, "maxOpenReassemblies": 6},
        "state": {"socket": "/run/x.sock"},
        "backend": {"transport": "mqtt", "directory": {"path": "p", "configuration": "c"},
                    "mqtt": {"port": 8883, "prefix": "fleet/7", "tls": true, "caFile": "ca", "certFile": "ce",
                             "keyFile": "k"}}})",
         manifest);
    for (const char* address : {"fd00::1", "::1", "fe80::1%eth0"}) {
        const std::string text = std::string(R"({"someip": {"address": ")") + address +
                                 R"(", "network": "fd00::/8", "discovery": {"group": "ff02::4:c0de"}}})";
        Manifest ipv6;
        read(text, ipv6);
        EXPECT_EQ(ipv6.someip.address, address);
    }
    EXPECT_FALSE(manifest.log.console);
    EXPECT_EQ(manifest.someip.discovery.ttlSeconds, 16'777'215u);
    EXPECT_EQ(manifest.someip.maxOpenReassemblies, 6u);
    EXPECT_EQ(manifest.backend.mqtt.keyFile, "k");
    EXPECT_FALSE(manifest.backend.spool);
    EXPECT_EQ(manifest.backend.remember.afterSeconds, 30u);
    read(R"({"backend": {"spool": {}, "remember": {"afterSeconds": null}}})", manifest);
    EXPECT_EQ(manifest.backend.spool->maxBytes, 512u << 20);
    EXPECT_FALSE(manifest.backend.remember.afterSeconds);
}

TEST(Manifest, AFaultIsNamedByItsKeyAndWhatIsExpectedThere) {
    const std::pair<const char*, const char*> kCases[] = {
        {"[]", "the manifest: an object"},
        {R"({"lgo": {}})", "lgo: no such key; known here are log, someip, state, backend"},
        {R"({"log": []})", "log: an object"},
        {R"({"log": {"maxLevel": 8}})", "log.maxLevel: a number from 0 to 7"},
        {R"({"log": {"maxLevel": true}})", "log.maxLevel: a number"},
        {R"({"log": {"console": 1}})", "log.console: true or false"},
        {R"({"log": {"file": null}})", "log.file: a text"},
        {R"({"log": {"file": "a\u0000b"}})", "log.file: a text without zero bytes"},
        {R"({"someip": {"address": "localhost"}})", "someip.address: an IPv4 or IPv6 address"},
        {R"({"someip": {"address": "fe80::1"}})",
         "someip.address: an IPv4 or IPv6 address, with its interface"},
        {R"({"someip": {"address": "fd00::1%eth0"}})", "someip.address: an IPv4 or IPv6 address"},
        {R"({"someip": {"address": "fd00::1"}})", "someip.network: an IPv6 network, as someip.address is"},
        {R"({"someip": {"network": "10.0.0.0/33"}})", "someip.network: an IPv4 or IPv6 network"},
        {R"({"someip": {"network": "fd00::/129"}})", "someip.network: an IPv4 or IPv6 network"},
        {R"({"someip": {"network": "fd00::/64"}})", "someip.network: an IPv4 network, as someip.address is"},
        {R"({"someip": {"address": "fd00::1", "network": "fd00::/64"}})",
         "someip.discovery.group: an IPv6 multicast group, as someip.address is"},
        {R"({"someip": {"discovery": {"group": "fd00::1"}}})",
         "someip.discovery.group: an IPv4 multicast group"},
        {R"({"someip": {"eventPort": 1e300}})", "someip.eventPort: a number"},
        {R"({"someip": {"discovery": {"initialDelayMinMs": 40}}})",
         "someip.discovery.initialDelayMinMs: no more than"},
        {R"({"backend": {"transport": "http"}})", "backend.transport: \"directory\" or \"mqtt\""},
        {R"({"backend": {"directory": {"path": ""}}})", "backend.directory.path: the path"},
        {R"({"backend": {"spool": {"path": ""}}})", "backend.spool.path: the path"},
        {R"({"backend": {"spool": {"whenFull": "never"}}})",
         "backend.spool.whenFull: \"oldest\" or \"newest\""},
        {R"({"backend": {"compression": {"method": "gzip"}}})",
         "backend.compression.method: \"none\" or \"zstd\""},
        {R"({"backend": {"remember": {"afterSeconds": -1}}})",
         "backend.remember.afterSeconds: a number from 0"},
        {R"({"backend": {"mqtt": {"host": ""}}})", "backend.mqtt.host: a host name"},
        {R"({"backend": {"mqtt": {"hosts": []}}})", "backend.mqtt.hosts: at least one host"},
        {R"({"backend": {"mqtt": {"hosts": ["a", "b:0"]}}})", "backend.mqtt.hosts[1]: \"host\" or"},
        {R"({"backend": {"mqtt": {"hosts": ["[::1"]}}})", "backend.mqtt.hosts[0]: \"host\" or"},
        {R"({"backend": {"mqtt": {"prefix": "vlm/#"}}})", "backend.mqtt.prefix: a topic"},
        {R"({"backend": {"mqtt": {"reconnectMinSeconds": 60}}})",
         "backend.mqtt.reconnectMinSeconds: no more than"},
        {R"({"backend": {"mqtt": {"tls": true, "certFile": "c"}}})", "backend.mqtt.keyFile: a file"},
        {R"({"backend": {"mqtt": {"caFile": "c"}}})", "backend.mqtt.tls: true"},
    };
    for (const auto& [text, expected] : kCases) {
        Manifest manifest;
        manifest.log.maxLevel = 4;
        std::string error;
        EXPECT_FALSE(machine::readManifest(valueOf(text), manifest, error)) << text;
        EXPECT_THAT(error, StartsWith(expected)) << text;
        EXPECT_EQ(manifest.log.maxLevel, 4) << "a refused manifest must change nothing";
    }
}

TEST(Manifest, BrokersHaveThePortOfTheirOwnOrTheUsualOne) {
    Manifest manifest;
    ASSERT_EQ(machine::brokersOf(manifest.backend.mqtt).size(), 1u) << "host alone";
    read(R"({"backend": {"mqtt": {"port": 8883, "hosts": ["a", "b.c:1", "[::1]:2", "::1", "[fe80::1]"]}}})",
         manifest);
    std::string text;
    for (const auto& broker : machine::brokersOf(manifest.backend.mqtt)) {
        text += broker.host + ' ' + std::to_string(broker.port) + '\n';
    }
    EXPECT_EQ(text, "a 8883\nb.c 1\n::1 2\n::1 8883\nfe80::1 8883\n");
}

TEST(Manifest, TheProcessUsesTheFileThatTheVariableNamesOrEndsWithStatus1AndAReason) {
    const TemporaryFolder folder;
    const auto runProbe = [&](const std::string& file) {
        return inProcessOfItsOwn([&file] {
            ::setenv("VLM_MACHINE_MANIFEST", file.c_str(), 1);
            kyo::Log::setReportingLevel(7);
            std::printf("%d %d %s\n", kyo::Log::getReportingLevel(), kyo::Log::getFileOutputLevel(),
                        machine::stateSocketPath().c_str());
        });
    };
    const auto good = runProbe(folder.write(
        "m.json", R"({"log": {"maxLevel": 3, "dlt": false}, "state": {"socket": "/x/y.sock"}})"));
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(good.out, "3 -1 /x/y.sock\n");

    const std::pair<std::string, const char*> kCases[] = {
        {folder.file("missing.json"), "No such file"},
        {folder.path(), "cannot be read"},
        {folder.write("broken.json", "{"), "Line 1"},
        {folder.write("wrong.json", R"({"log": {"level": 3}})"), "log.level: no such key"},
    };
    for (const auto& [file, reason] : kCases) {
        const auto outcome = runProbe(file);
        EXPECT_EQ(outcome.status, 1) << file;
        EXPECT_THAT(outcome.err, AllOf(HasSubstr(file), HasSubstr(reason)));
        EXPECT_EQ(outcome.out, "");
    }
}
