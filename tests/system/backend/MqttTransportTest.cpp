/// The MQTT transport with a real broker: presence, loss and return of the broker, access, limits.
#include "Processes.h"
#include "backend/MqttTransport.h"
#include "tests/support/TransportClient.h"

namespace {

using namespace kyo::orx;
using namespace vlmTest;

struct Vehicle : StartedTransport<MqttTransport> {
    explicit Vehicle(const machine::MqttBackend& settings)
        : StartedTransport(behind(settings), kyo::orx::Presence{"Catalog 1", {"TypeA", "TypeB"}}) {}
};

const kyo::Json::Value kOpening = masterControl("t", {"TypeA"}, 0, 0);
const std::string kPresence = R"({"offeredDataTypes":["TypeA","TypeB"],"serverName":"Catalog 1","state":)";
const std::string kOnline = kPresence + "\"online\"}";
const std::string kOffline = kPresence + "\"offline\"}";

struct MqttBackendTest : Test {
    LogCapture m_log;
    const std::uint16_t m_port = freePort();
    machine::MqttBackend m_settings = brokerAt(m_port);
    Broker m_broker{m_port};
};

TEST_F(MqttBackendTest, CarriesMessagesBothWaysAndIgnoresWhatIsNotJsonOrWasRetained) {
    Observer backend(m_settings);
    backend.say("test/vehicle/mastercontrol", compactText(masterControl("stale", {"TypeA"}, 0, 1)), true);
    ASSERT_TRUE(backend.awaits("test/vehicle/mastercontrol", 1));
    Vehicle vehicle(m_settings);
    EXPECT_TRUE(m_log.hasPart(5, "The backend is behind the topics test/vehicle/..."));
    ASSERT_TRUE(m_log.waitFor("test/vehicle/mastercontrol: ignored, as it was retained"));
    for (const char* wrong : {"", "{\"half\":", "\xff\xfe", "{} {}"}) {
        backend.say("test/vehicle/mastercontrol", wrong);
    }
    EXPECT_TRUE(m_log.waitFor("ignored, as it is not JSON", 4));
    backend.say("test/vehicle/mastercontrol", compactText(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.controls()[0], kOpening);
    EXPECT_EQ(vehicle.transport().requestConfiguration(), 0);
    ASSERT_TRUE(backend.awaits("test/vehicle/config/request", 1));
    EXPECT_EQ(backend.on("test/vehicle/config/request")[0], "{\"serverName\":\"Catalog 1\"}");
    backend.say("test/vehicle/config/response", "[{\"recordId\":\"r\",\"recordBody\":\"e30=\"}]");
    ASSERT_TRUE(vehicle.awaitAnswers(1));
    EXPECT_EQ(vehicle.answers()[0][0]["recordId"], "r");
    EXPECT_EQ(vehicle.transport().send(envelope("1", 300000)), 0);
    ASSERT_TRUE(backend.awaits("test/vehicle/data", 1));
    EXPECT_EQ(backend.on("test/vehicle/data")[0], compactText(envelope("1", 300000)));
    backend.stop();
    EXPECT_EQ(vehicle.transport().send(envelope("2")), 0);
    if (!vehicle.awaitControls(2)) {  // the broker learned later that nobody listens any more
        EXPECT_EQ(vehicle.transport().send(envelope("2")), 0);
    }
    ASSERT_TRUE(vehicle.awaitControls(2)) << "so that the application sends it again";
    EXPECT_EQ(vehicle.controls()[1], masterControl("t", {"TypeA"}, 0, 1));
    EXPECT_TRUE(m_log.hasPart(3, "no backend listens"));
}

TEST_F(MqttBackendTest, IsShownOfflineByTheBrokerWhenLostAndByItselfWhenItEnds) {
    Observer backend(m_settings, {"test/vehicle/status"});
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    {
        // A second client with the same name ends the vehicle's connection, so the broker publishes its will.
        Observer usurper(m_settings, {"nothing"}, "vlmmaster-test-vehicle");
        ASSERT_TRUE(backend.awaits("test/vehicle/status", 2));
        usurper.stop();
    }
    ASSERT_TRUE(eventually([&] { return backend.on("test/vehicle/status").back() == kOnline; }));
    EXPECT_THAT(backend.on("test/vehicle/status"), Contains(kOffline));

    vehicle.end();
    ASSERT_TRUE(eventually([&] { return backend.on("test/vehicle/status").back() == kOffline; }));
    Observer late(m_settings, {"test/vehicle/status"}, "late");
    ASSERT_TRUE(late.awaits("test/vehicle/status", 1));
    EXPECT_EQ(late.on("test/vehicle/status")[0], kOffline) << "it is retained";
}

TEST_F(MqttBackendTest, DropsWhatWaitedForABrokerThatCameBackWithALowerLimit) {
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    m_broker.stop();
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_EQ(vehicle.transport().send(envelope("big", 30000)), 0);
    m_broker.restart("max_packet_size 20000\n");
    Observer backend(m_settings);
    EXPECT_TRUE(m_log.waitFor("1 unsent messages are given up"));
    EXPECT_EQ(vehicle.transport().send(envelope("after")), 0);
    ASSERT_TRUE(backend.awaits("test/vehicle/data", 1));
    EXPECT_EQ(backend.on("test/vehicle/data").back(), compactText(envelope("after")));
}

TEST_F(MqttBackendTest, FailsASendWhenTooMuchWaitsForTheBrokerAndLogsAtTheEndWhatIsLost) {
    m_broker.stop();
    const auto failedBefore = counted("orx.failed");
    Vehicle vehicle(m_settings);
    std::size_t taken = 0;
    std::int32_t result = 0;
    while ((result = vehicle.transport().send(envelope("x"))) == 0) {
        ASSERT_LT(++taken, MqttConnection::kMaxUnconfirmed + 1);
    }
    EXPECT_EQ(result, MqttConnection::kQueueFull);
    EXPECT_EQ(taken, MqttConnection::kMaxUnconfirmed);
    EXPECT_TRUE(m_log.hasPart(3, "An envelope cannot be sent: 100 messages"));
    EXPECT_EQ(counted("orx.failed"), failedBefore + 1);
    ASSERT_TRUE(m_log.waitFor(": Connection refused; trying again"));
    vehicle.transport().leave();
    EXPECT_TRUE(m_log.hasPart(3, "100 envelopes are lost with the process"));
    EXPECT_EQ(vehicle.transport().send(envelope("after the end")), MqttConnection::kClosed);
    Vehicle other(m_settings);
    constexpr std::size_t kEach = 8u << 20;
    for (std::size_t bytes = kEach; bytes < MqttConnection::kMaxUnconfirmedBytes; bytes += kEach) {
        ASSERT_EQ(other.transport().send(envelope("big", kEach)), 0);
    }
    EXPECT_EQ(other.transport().send(envelope("big", kEach)), MqttConnection::kQueueFull);
    EXPECT_EQ(other.transport().send(envelope("huge", MqttConnection::kMaxUnconfirmedBytes)),
              MqttConnection::kTooLarge)
        << "whatever waits";
}

TEST_F(MqttBackendTest, DropsAnEnvelopeBeyondTheBrokersLimitAndOpensTheChannelForTheNext) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"max_packet_size 20000\n", MqttConnection::kTooLarge,
         "do not fit into the broker's largest packet of 20000"},
        {"message_size_limit 20000\n", 0,
         "refuses an envelope for its size"},  // a limit that the broker does not announce
    };
    for (const auto& [limit, result, complaint] : cases) {
        m_broker.restart(limit);
        Vehicle vehicle(m_settings);
        Observer backend(m_settings);
        ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
        backend.say("test/vehicle/mastercontrol", compactText(kOpening));
        ASSERT_TRUE(vehicle.awaitControls(1));
        EXPECT_EQ(vehicle.transport().send(envelope("big", 30000)), result);
        ASSERT_TRUE(vehicle.awaitControls(2)) << "nobody else would open the channel for the next one";
        EXPECT_EQ(vehicle.controls()[1], kOpening);
        EXPECT_TRUE(m_log.hasPart(3, complaint));
        EXPECT_EQ(vehicle.transport().send(envelope("small")), 0);
        EXPECT_TRUE(backend.awaits("test/vehicle/data", 1));
    }
}

TEST_F(MqttBackendTest, RepeatsNoOpeningThatANewerMessageHasOvertaken) {
    m_broker.restart("max_packet_size 20000\n");
    Vehicle vehicle(m_settings);
    Observer backend(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    const auto closed = masterControl("t", {"TypeA"}, 3, 0);
    const auto opening = masterControl("u", {"TypeA"}, 0, 0);
    backend.say("test/vehicle/mastercontrol", compactText(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_LT(vehicle.transport().send(envelope("big", 30000)), 0);  // repeats the opening in 200 ms
    backend.say("test/vehicle/mastercontrol", compactText(closed));
    backend.say("test/vehicle/mastercontrol", compactText(opening));
    ASSERT_TRUE(vehicle.awaitControls(3));
    EXPECT_LT(vehicle.transport().send(envelope("big", 30000)), 0);  // in 400 ms
    ASSERT_TRUE(vehicle.awaitControls(4));
    EXPECT_THAT(vehicle.controls(), ElementsAre(kOpening, closed, opening, opening));
}

/// What is published in the instant in which the connection comes about goes out once, and after what
/// waited.
TEST_F(MqttBackendTest, KeepsTheOrderOfWhatIsPublishedWhileTheConnectionIsMade) {
    Observer observer(m_settings, {"order"});
    std::vector<std::string> expected;
    for (int turn = 0; turn < 20; ++turn) {
        std::atomic<bool> now{false};
        MqttConnection connection(
            m_settings, "publisher", {}, {},
            {[] {}, [](const auto&...) {}, [](int, int) {},
             [&now](int, const std::string& line) { now = now || line.starts_with("connected"); }});
        const auto publish = [&](int number) {
            std::string error;
            expected.push_back(std::to_string(turn) + ' ' + std::to_string(number));
            EXPECT_EQ(connection.publish("order", expected.back(), false, 0, error), 0) << error;
        };
        for (int i = 0; i < 50; ++i) {
            publish(i);
        }
        connection.start();
        while (!now) {
        }
        for (int i = 50; i < 100; ++i) {
            publish(i);
        }
        ASSERT_TRUE(observer.awaits("order", expected.size()));
    }
    EXPECT_EQ(observer.on("order"), expected);
}

/// The most memory that the process has had since the last call, in KiB.
std::size_t peakSinceLastCall() {
    std::size_t peak = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            peak = std::stoul(line.substr(6));
        }
    }
    std::ofstream("/proc/self/clear_refs") << '5';
    return peak;
}

TEST_F(MqttBackendTest, RefusesHostileMessagesBeforeTheyTakeMemory) {
    const TemporaryFolder folder;
    Vehicle vehicle(m_settings);
    Observer backend(m_settings, {"test/vehicle/status"});
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    std::string nested;
    while (nested.size() < 3'000'000) {
        nested += "[[[],[]],[[]]],";
    }
    const auto publish = [&](const std::string& topic, const std::string& message) {
        const std::string file = folder.write("message", message);
        return ChildProcess({"mosquitto_pub", "-p", std::to_string(m_port), "-q", "1", "-t",
                             "test/vehicle/" + topic, "-f", file})
                   .wait() == 0;
    };
    const std::string control = R"({"ignored":[)" + nested + "[]]," + compactText(kOpening).substr(1);
    const std::string answer =
        R"([{"ignored":[)" + nested + nested + R"([]],"recordId":"r","recordBody":"e30="}])";
    const std::string tooLong = R"([{"ignored":[)" + nested + nested + nested + nested + "[]]}]";
    const auto refused = counted("orx.refused");
    const std::size_t before = (peakSinceLastCall(), peakSinceLastCall());
    ASSERT_TRUE(publish("mastercontrol", control));
    EXPECT_TRUE(
        m_log.waitFor("test/vehicle/mastercontrol: refused, at most 65536 bytes are expected, found"));
    ASSERT_TRUE(publish("config/response", answer));
    EXPECT_TRUE(m_log.waitFor("test/vehicle/config/response: refused, at most 1000 values are expected"));
    ASSERT_TRUE(publish("config/response", tooLong))
        << "which the broker keeps, as this side has asked it to";
    backend.say("test/vehicle/mastercontrol", compactText(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    const std::size_t moved = peakSinceLastCall() - before;
    EXPECT_LT(moved, 32u << 10);
    EXPECT_EQ(counted("orx.refused") - refused, 2u);
    EXPECT_EQ(vehicle.answers().size(), 0u);
}

TEST_F(MqttBackendTest, SpeaksTlsWithABrokerWhoseCertificateHoldsAndWhichTakesItsOwn) {
    const Certificates certificates;
    m_settings.tls = true;
    m_settings.caFile = certificates.file("ca.crt");
    machine::MqttBackend mistrusting = m_settings;
    mistrusting.caFile = certificates.file("other-ca.crt");
    const auto with = [&](const char* certificate, const char* key) {
        machine::MqttBackend settings = m_settings;
        settings.certFile = certificates.file(certificate);
        settings.keyFile = certificates.file(key);
        return settings;
    };
    const std::string server = certificates.brokerLines("server");
    const std::string strict = server + "require_certificate true\n";
    const std::tuple<machine::MqttBackend, std::string, const char*> cases[] = {
        {m_settings, "", "no connection to the broker"},  // in the clear
        {m_settings, certificates.brokerLines("expired"), "the broker's certificate has expired"},
        {m_settings, certificates.brokerLines("elsewhere"),
         "the broker's certificate is for another host than 127.0.0.1"},
        {mistrusting, server, "an unknown authority signed the broker's certificate"},
        {m_settings, strict, "the broker wants a certificate of the vehicle"},
        {m_settings, strict + "tls_version tlsv1.2\n", "the broker wants a certificate of the vehicle"},
        {with("other-ca.crt", "other-ca.key"), strict,
         "the broker refuses the vehicle's certificate (unknown CA)"},
        {with("client.crt", "missing.key"), strict, "missing.key cannot be used: "},
        {with("client.crt", "other-ca.key"), strict, "cannot be used: key values mismatch"},
        {m_settings, server, "connected to the broker"},
        {with("client.crt", "client.key"), strict, "connected to the broker"},
    };
    for (const auto& [settings, brokerLines, outcome] : cases) {
        SCOPED_TRACE(brokerLines + outcome);
        m_broker.restart(brokerLines);
        m_log.clear();
        const Vehicle vehicle(settings);
        EXPECT_TRUE(m_log.waitFor(outcome)) << PrintToString(m_log.messages(3));
        EXPECT_EQ(m_log.hasPart(5, "connected to the broker"), m_log.messages(3).empty());
    }
}

/// This program and those that it starts have an OpenSSL that allows what is long out of date: it is the
/// vehicle that refuses it.
const TemporaryFolder g_folder;
const int g_isLenient =
    ::setenv("OPENSSL_CONF",
             g_folder
                 .write("openssl.cnf",
                        "openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\nsystem_default = any\n[any]\n"
                        "MinProtocol = TLSv1\nCipherString = ALL:@SECLEVEL=0\n")
                 .c_str(),
             1);

TEST_F(MqttBackendTest, SpeaksNoTlsOlderThan12) {
    const Certificates certificates;
    m_broker.stop();
    const std::string address = "127.0.0.1:" + std::to_string(m_port);
    const ChildProcess server({"openssl", "s_server", "-accept", address, "-tls1_1", "-quiet", "-cert",
                               certificates.file("server.crt"), "-key", certificates.file("server.key")});
    m_settings.caFile = certificates.file("ca.crt");
    const auto plainClient = [&] {
        return runToItsEnd(
            {"sh", "-c",
             "exec openssl s_client -connect " + address + " -CAfile " + m_settings.caFile + " </dev/null"});
    };
    ASSERT_TRUE(eventually([&] { return plainClient().out.find("TLSv1.1") != std::string::npos; }));
    m_settings.tls = true;
    const Vehicle vehicle(m_settings);
    EXPECT_TRUE(m_log.waitFor("the broker speaks no TLS 1.2 or newer")) << PrintToString(m_log.messages(3));
}

}  // namespace
