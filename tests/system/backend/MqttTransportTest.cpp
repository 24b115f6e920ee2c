/// The MQTT transport against a real broker: presence, loss and return of the broker, who is let in, limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Processes.h"
#include "kyo/Status.h"
#include "kyo/orx/MqttConnection.h"
#include "kyo/orx/MqttTransport.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace {

using kyo::orx::masterControl;
using kyo::orx::MqttConnection;
using kyo::orx::MqttTransport;
using vlmTest::Broker;
using vlmTest::Certificates;
using vlmTest::eventually;
using vlmTest::freePort;
using vlmTest::LogCapture;

std::string text(const kyo::Json::Value& value) {
    return kyo::Json::FastWriter().write(value);
}

kyo::Json::Value envelope(const std::string& id, std::size_t size = 0) {
    kyo::Json::Value value(kyo::Json::objectValue);
    value["messageId"] = id;
    value["orxClientDataReport"] = std::string(size, 'x');
    return value;
}

machine::MqttBackend settingsFor(std::uint16_t port) {
    machine::MqttBackend settings;
    settings.port = port;
    settings.prefix = "test/vehicle";
    settings.reconnectMaxSeconds = 1;
    return settings;
}

/// The other side of the topics: publishes, and remembers what came.
class Observer {
  public:
    explicit Observer(const machine::MqttBackend& settings, std::vector<std::string> topics = {"#"},
                      std::string clientId = "observer")
        : m_connection(
              settings, std::move(clientId), std::move(topics), {},
              {[this] { note("connected", ""); },
               [this](const std::string& topic, const std::string& payload, bool) { note(topic, payload); },
               [](int, int) {}, [](int, const std::string&) {}}) {
        m_connection.start();
        EXPECT_TRUE(eventually([this] { return !on("connected").empty(); }));
    }
    std::vector<std::string> on(const std::string& topic) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_received[topic];
    }
    bool awaits(const std::string& topic, std::size_t count) {
        return eventually([&] { return on(topic).size() >= count; });
    }
    void say(const std::string& topic, const std::string& payload, bool retain = false) {
        std::string error;
        EXPECT_EQ(m_connection.publish(topic, payload, retain, 0, error), 0) << error;
    }
    void stop() { m_connection.stop(); }

  private:
    void note(const std::string& topic, const std::string& payload) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_received[topic].push_back(payload);
    }
    std::mutex m_mutex;
    std::map<std::string, std::vector<std::string>> m_received;
    MqttConnection m_connection;
};

/// A transport with what its callbacks got.
class Vehicle {
  public:
    explicit Vehicle(const machine::MqttBackend& settings)
        : m_transport(std::make_unique<MqttTransport>(settings,
                                                      kyo::orx::Presence{"Catalog 1", {"TypeA", "TypeB"}})) {
        m_transport->setMasterControlCallback([this](const kyo::Json::Value& message) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_controls.push_back(message);
        });
        m_transport->setConfigResponseCallback([this](const kyo::Json::Value& answer) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_answers.push_back(answer);
        });
        m_transport->start();
    }
    MqttTransport& transport() { return *m_transport; }
    void end() { m_transport.reset(); }
    std::vector<kyo::Json::Value> controls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_controls;
    }
    std::vector<kyo::Json::Value> answers() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_answers;
    }
    bool awaitControls(std::size_t count) {
        return eventually([&] { return controls().size() >= count; });
    }

  private:
    std::mutex m_mutex;
    std::vector<kyo::Json::Value> m_controls;
    std::vector<kyo::Json::Value> m_answers;
    std::unique_ptr<MqttTransport> m_transport;
};

const kyo::Json::Value kOpening = masterControl("t", {"TypeA"}, 0, 0);
const std::string kOnline =
    "{\"offeredDataTypes\":[\"TypeA\",\"TypeB\"],\"serverName\":\"Catalog 1\",\"state\":\"online\"}";
const std::string kOffline =
    "{\"offeredDataTypes\":[\"TypeA\",\"TypeB\"],\"serverName\":\"Catalog 1\",\"state\":\"offline\"}";

class MqttBackendTest : public testing::Test {
  protected:
    LogCapture m_log;
    const std::uint16_t m_port = freePort();
    machine::MqttBackend m_settings = settingsFor(m_port);
};

TEST_F(MqttBackendTest, carries_messages_both_ways_on_its_topics) {
    Broker broker(m_port);
    Observer backend(m_settings);
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    EXPECT_EQ(backend.on("test/vehicle/status")[0], kOnline);

    backend.say("test/vehicle/mastercontrol", text(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.controls()[0], kOpening);
    EXPECT_EQ(vehicle.transport().requestConfiguration(), 0);
    ASSERT_TRUE(backend.awaits("test/vehicle/config/request", 1));
    EXPECT_EQ(backend.on("test/vehicle/config/request")[0], "{\"serverName\":\"Catalog 1\"}");
    backend.say("test/vehicle/config/response", "[{\"recordId\":\"r\",\"recordBody\":\"e30=\"}]");
    ASSERT_TRUE(eventually([&] { return vehicle.answers().size() == 1; }));
    EXPECT_EQ(vehicle.answers()[0][0]["recordId"], "r");
    EXPECT_EQ(vehicle.transport().send(envelope("1", 300000)), 0);
    ASSERT_TRUE(backend.awaits("test/vehicle/data", 1));
    EXPECT_EQ(backend.on("test/vehicle/data")[0], text(envelope("1", 300000)));
}

TEST_F(MqttBackendTest, ignores_what_is_not_json_or_was_retained) {
    Broker broker(m_port);
    Observer backend(m_settings);
    backend.say("test/vehicle/mastercontrol", text(masterControl("stale", {"TypeA"}, 0, 1)), true);
    ASSERT_TRUE(backend.awaits("test/vehicle/mastercontrol", 1));
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("test/vehicle/mastercontrol: ignored, as it was retained"));
    for (const char* wrong : {"", "{\"half\":", "\xff\xfe", "{} {}"}) {
        backend.say("test/vehicle/mastercontrol", wrong);
        backend.say("test/vehicle/config/response", wrong);
    }
    backend.say("test/vehicle/mastercontrol", text(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.controls()[0], kOpening);
    EXPECT_TRUE(vehicle.answers().empty());
    EXPECT_TRUE(m_log.waitFor("ignored, as it is not JSON", 8));
}

TEST_F(MqttBackendTest, is_shown_offline_by_the_broker_when_lost_and_says_so_itself_when_it_ends) {
    Broker broker(m_port);
    Observer backend(m_settings, {"test/vehicle/status"});
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    {
        // Whoever comes under the same name ends the vehicle's connection, and so brings its will about.
        Observer usurper(m_settings, {"nothing"}, "vlmmaster-test-vehicle");
        ASSERT_TRUE(backend.awaits("test/vehicle/status", 2));
        usurper.stop();
    }
    ASSERT_TRUE(eventually([&] { return backend.on("test/vehicle/status").back() == kOnline; }));
    EXPECT_THAT(backend.on("test/vehicle/status"), testing::Contains(kOffline));

    vehicle.end();
    ASSERT_TRUE(eventually([&] { return backend.on("test/vehicle/status").back() == kOffline; }));
    Observer late(m_settings, {"test/vehicle/status"}, "late");
    ASSERT_TRUE(late.awaits("test/vehicle/status", 1));
    EXPECT_EQ(late.on("test/vehicle/status")[0], kOffline) << "it is retained";
}

TEST_F(MqttBackendTest, keeps_what_is_sent_while_the_broker_is_away_and_tells_each_change_once) {
    Broker broker(m_port);
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    broker.stop();
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_EQ(vehicle.transport().send(envelope("kept-1")), 0);
    EXPECT_EQ(vehicle.transport().send(envelope("kept-2")), 0);
    m_log.clear();
    ASSERT_TRUE(vlmTest::waitForListener(m_port, false));

    const auto reconnects = kyo::Status::counter("orx.reconnects").value();
    broker.start();
    Observer backend(m_settings);
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    EXPECT_EQ(kyo::Status::counter("orx.reconnects").value(), reconnects + 1);
    EXPECT_EQ(m_log.messages(5).size(), 1u);
    EXPECT_LE(m_log.messages(3).size(), 2u) << "the cause may change once, from lost to refused";
    EXPECT_EQ(vehicle.transport().send(envelope("after")), 0);
    ASSERT_TRUE(eventually([&] {
        const auto received = backend.on("test/vehicle/data");
        return !received.empty() && received.back() == text(envelope("after"));
    }));
}

TEST_F(MqttBackendTest, sends_what_was_given_before_the_first_connection) {
    Vehicle vehicle(m_settings);
    EXPECT_EQ(vehicle.transport().send(envelope("early")), 0);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    Broker broker(m_port);
    Observer backend(m_settings);
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    // The backend may have come too late for it; the next one shows that the queue moves.
    EXPECT_EQ(vehicle.transport().send(envelope("next")), 0);
    ASSERT_TRUE(eventually([&] {
        const auto received = backend.on("test/vehicle/data");
        return !received.empty() && received.back() == text(envelope("next"));
    }));
}

TEST_F(MqttBackendTest, fails_a_send_when_too_much_waits_for_the_broker) {
    Vehicle vehicle(m_settings);
    std::size_t taken = 0;
    std::int32_t result = 0;
    while ((result = vehicle.transport().send(envelope("x"))) == 0) {
        ASSERT_LT(++taken, MqttConnection::kMaxUnconfirmed + 1);
    }
    EXPECT_EQ(result, MqttConnection::kQueueFull);
    EXPECT_EQ(taken, MqttConnection::kMaxUnconfirmed);
    EXPECT_TRUE(m_log.hasPart(3, "An envelope cannot be sent: 100 messages"));
}

TEST_F(MqttBackendTest, has_an_envelope_sent_again_that_reached_no_backend) {
    Broker broker(m_port);
    Vehicle vehicle(m_settings);
    Observer backend(m_settings, {"test/vehicle/status"});
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    backend.say("test/vehicle/mastercontrol", text(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.transport().send(envelope("unheard")), 0);
    ASSERT_TRUE(vehicle.awaitControls(2));
    EXPECT_EQ(vehicle.controls()[1], masterControl("t", {"TypeA"}, 0, 1));
    EXPECT_TRUE(m_log.hasPart(3, "no backend listens"));
}

TEST_F(MqttBackendTest, fails_a_send_beyond_the_brokers_packet_limit_and_goes_on) {
    Broker broker(m_port, "allow_anonymous true\nmax_packet_size 20000\n");
    Vehicle vehicle(m_settings);
    Observer backend(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    backend.say("test/vehicle/mastercontrol", text(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.transport().send(envelope("big", 30000)), MqttConnection::kTooLarge);
    EXPECT_TRUE(m_log.hasPart(3, "do not fit into the broker's largest packet of 20000"));
    ASSERT_TRUE(vehicle.awaitControls(2)) << "nobody else would open the channel for the next one";
    EXPECT_EQ(vehicle.controls()[1], kOpening);
    EXPECT_EQ(vehicle.transport().send(envelope("small")), 0);
    EXPECT_TRUE(backend.awaits("test/vehicle/data", 1));
}

TEST_F(MqttBackendTest, gives_up_an_envelope_that_the_broker_refuses_for_its_size) {
    Broker broker(m_port, "allow_anonymous true\nmessage_size_limit 20000\n");
    Vehicle vehicle(m_settings);
    Observer backend(m_settings);
    ASSERT_TRUE(backend.awaits("test/vehicle/status", 1));
    backend.say("test/vehicle/mastercontrol", text(kOpening));
    ASSERT_TRUE(vehicle.awaitControls(1));
    EXPECT_EQ(vehicle.transport().send(envelope("big", 30000)), 0) << "this limit is not announced";
    ASSERT_TRUE(vehicle.awaitControls(2));
    EXPECT_EQ(vehicle.controls()[1], kOpening);
    EXPECT_TRUE(m_log.hasPart(3, "refuses an envelope for its size"));
    EXPECT_EQ(vehicle.transport().send(envelope("small")), 0);
    EXPECT_TRUE(backend.awaits("test/vehicle/data", 1));
}

TEST_F(MqttBackendTest, gives_up_what_waits_when_a_returning_broker_takes_less) {
    Vehicle vehicle(m_settings);
    EXPECT_EQ(vehicle.transport().send(envelope("big", 30000)), 0);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    Broker broker(m_port, "allow_anonymous true\nmax_packet_size 20000\n");
    ASSERT_TRUE(m_log.waitFor("1 unsent messages are given up"));
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    Observer backend(m_settings);
    EXPECT_EQ(vehicle.transport().send(envelope("small")), 0);
    EXPECT_TRUE(backend.awaits("test/vehicle/data", 1));
}

TEST_F(MqttBackendTest, tells_of_a_wrong_password_once_and_enters_when_it_is_right) {
    vlmTest::TemporaryFolder folder;
    const auto accessFor = [&folder](const std::string& password) {
        const std::string file = folder.write("passwords", "vehicle:" + password + "\n");
        vlmTest::runProgram({"mosquitto_passwd", "-U", file});
        return "allow_anonymous false\npassword_file " + file + "\n";
    };
    Broker broker(m_port, accessFor("right"));
    m_settings.user = "vehicle";
    m_settings.password = "wrong";
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_TRUE(m_log.hasPart(3, "Not authorized"));
    broker.restart(accessFor("wrong"));
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    std::size_t refused = 0;
    for (const auto& message : m_log.messages(3)) {
        refused += message.find("Not authorized") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(refused, 1u);
}

TEST_F(MqttBackendTest, speaks_tls_only_with_a_broker_whose_certificate_holds) {
    const Certificates certificates;
    m_settings.tls = true;
    m_settings.caFile = certificates.file("ca.crt");
    Broker broker(m_port, "allow_anonymous true\n" + certificates.brokerLines("expired"));
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_TRUE(m_log.hasPart(3, "certificate verify failed"));
    m_log.clear();

    broker.restart("allow_anonymous true\n" + certificates.brokerLines("elsewhere"));
    EXPECT_EQ(vehicle.transport().send(envelope("secret")), 0);
    {
        machine::MqttBackend other = m_settings;
        other.caFile = certificates.file("other-ca.crt");
        other.prefix = "test/other";
        broker.restart("allow_anonymous true\n" + certificates.brokerLines("server"));
        Vehicle suspicious(other);
        ASSERT_TRUE(m_log.waitFor("certificate verify failed"));
    }
    ASSERT_TRUE(m_log.waitFor("connected to the broker"));
    Observer backend(m_settings);
    EXPECT_EQ(vehicle.transport().send(envelope("open")), 0);
    EXPECT_TRUE(backend.awaits("test/vehicle/data", 1));
}

TEST_F(MqttBackendTest, does_not_connect_to_a_certificate_of_another_host) {
    const Certificates certificates;
    m_settings.tls = true;
    m_settings.caFile = certificates.file("ca.crt");
    Broker broker(m_port, "allow_anonymous true\n" + certificates.brokerLines("elsewhere"));
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_FALSE(m_log.hasPart(5, "connected to the broker"));
}

TEST_F(MqttBackendTest, says_nothing_in_the_clear_to_a_broker_without_tls) {
    const Certificates certificates;
    m_settings.tls = true;
    m_settings.caFile = certificates.file("ca.crt");
    Broker broker(m_port);  // would let anybody in who speaks its protocol
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    EXPECT_FALSE(m_log.hasPart(5, "connected to the broker"));
}

TEST_F(MqttBackendTest, shows_its_own_certificate_to_a_broker_that_wants_one) {
    const Certificates certificates;
    m_settings.tls = true;
    m_settings.caFile = certificates.file("ca.crt");
    Broker broker(m_port,
                  "allow_anonymous true\nrequire_certificate true\n" + certificates.brokerLines("server"));
    {
        Vehicle stranger(m_settings);
        ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
    }
    m_log.clear();
    m_settings.certFile = certificates.file("other-ca.crt");  // of an authority that the broker does not know
    m_settings.keyFile = certificates.file("other-ca.key");
    {
        Vehicle stranger(m_settings);
        ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
        EXPECT_FALSE(m_log.hasPart(5, "connected to the broker"));
    }
    m_settings.certFile = certificates.file("client.crt");
    m_settings.keyFile = certificates.file("client.key");
    Vehicle vehicle(m_settings);
    EXPECT_TRUE(m_log.waitFor("connected to the broker"));
    m_settings.keyFile = certificates.file("missing.key");
    Vehicle incomplete(m_settings);
    EXPECT_TRUE(m_log.waitFor("missing.key cannot be read: No such file or directory"));
}

}  // namespace
