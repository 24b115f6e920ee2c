/// Brokers that no package provides: one that only knows MQTT 3.1.1, and one that never answers.
#include <mqtt_protocol.h>

#include "backend/MqttConnection.h"
#include "backend/MqttTransport.h"
#include "tests/support/Loopback.h"
#include "tests/support/TransportClient.h"

namespace {

using namespace kyo::orx;
using namespace std::string_literals;
using namespace vlmTest;

machine::BackendSettings settingsFor(const Listener& listener) {
    return behind(brokerAt(listener.port()));
}

/// The protocol level in a CONNECT packet, after the name "MQTT".
int protocolLevel(const std::string& packet) {
    const auto at = packet.find("MQTT");
    return at == std::string::npos || packet[0] != 0x10 ? -1 : packet.at(at + 4);
}

TEST(OldBroker, GetsTheOlderProtocolAtOnceWhenItRefusesTheNewerOne) {
    LogCapture log;
    const Listener listener;
    MqttTransport transport(settingsFor(listener), {"Catalog 1", {}});
    transport.start();

    const Connection first = listener.accept();
    const std::string packet = first.receive();
    EXPECT_EQ(protocolLevel(packet), 5);
    EXPECT_EQ(packet.substr(packet.find("MQTT") + 6, 2), "\0\x1e"s)
        << "30 s of keep-alive time; else a broker that is gone stays unnoticed";
    first.send("\x20\x02\x00\x01"s);  // refused
    const Connection second = listener.accept();
    first.close();
    EXPECT_EQ(protocolLevel(second.receive()), 4);
    second.send("\x20\x02\x00\x00"s);  // welcome
    EXPECT_TRUE(log.waitFor("connected to the broker"));
    EXPECT_TRUE(log.hasPart(5, "does not speak MQTT 5; trying 3.1.1"));
    const auto receiveUntil = [&second](const char* text) {
        std::string received;
        while (received.find(text) == std::string::npos) {
            const std::string more = second.receive();
            if (more.empty()) {
                throw std::runtime_error(std::string(text) + " does not come");
            }
            received += more;
        }
        return received;
    };
    EXPECT_THAT(receiveUntil("/config/response"), Not(HasSubstr("online")))
        << "the answer could miss the subscriptions";
    const auto answer = [&second](char identifier, char granted) {
        second.send("\x90\x03\x00"s + identifier + granted);
    };
    answer(1, static_cast<char>(0x80));
    answer(2, 1);
    receiveUntil("\"state\":\"online\"");
    EXPECT_TRUE(log.waitFor("refuses the subscription of test/vehicle/mastercontrol"));

    const std::string received = receiveUntil("/mastercontrol");  // again, after a pause
    answer(received.at(received.find(static_cast<char>(0x82)) + 3), 1);
    receiveUntil("\"state\":\"online\"");
}

/// A broker that welcomes who comes and ends the connection at once. When each came.
TEST(DroppingBroker, IsTriedAfterLongerAndLongerPauses) {
    const Listener listener;
    machine::BackendSettings settings = settingsFor(listener);
    settings.mqtt.reconnectMaxSeconds = 60;
    MqttTransport transport(settings, {"Catalog 1", {}});
    transport.start();
    std::vector<std::chrono::steady_clock::time_point> came;
    for (int i = 0; i < 4; ++i) {
        const Connection connection = listener.accept();
        came.push_back(std::chrono::steady_clock::now());
        connection.receive();
        connection.send("\x20\x03\x00\x00\x00"s);
        connection.receive();  // what follows upon the welcome
    }
    EXPECT_GT(came[2] - came[1], std::chrono::milliseconds(1490)) << "three quarters of two seconds";
    EXPECT_GT(came[3] - came[2], std::chrono::milliseconds(2990));
}

/// Confirms each message "small" until a large one begins.
void confirmUntilALargeOneBegins(const Connection& connection) {
    std::string received;
    while (received.find("xxx") == std::string::npos) {
        const std::string more = connection.receive();
        if (more.empty()) {
            return;
        }
        received += more;
        if (const auto at = received.find("small"); at != std::string::npos) {
            connection.send("\x40\x02"s + received.substr(at - 2, 2));  // its number is before the text
            received.erase(0, at + 5);
        }
    }
}

TEST(OldBroker, IsNotTriedForEverWithAMessageThatItEndsEachConnectionFor) {
    const Listener listener;
    std::atomic<std::uint64_t> refused{0};
    MqttConnection* made = nullptr;
    const auto publish = [&made](const std::string& payload, int kind, MqttConnection::Form form) {
        std::string error;
        EXPECT_EQ(made->publish("t", payload, false, kind, error, std::move(form)), 0) << error;
    };
    MqttConnection connection(
        settingsFor(listener).mqtt, "vehicle", {}, {},
        {[&] { publish("small", 1, {}); }, [](const auto&...) {},
         [&](int, int) {
             publish(std::string(1000, 'x'), 2, {"", "", "", true, 7});  // for one connection
         },
         [](int, const std::string&) {},
         [&refused](std::uint64_t tag, int reason) {
             EXPECT_EQ(reason, MQTT_RC_PACKET_TOO_LARGE);
             refused = tag;
         }});
    made = &connection;
    connection.start();
    int ends = 0;
    std::string answer = "\x20\x02\x00\x01"s;  // no MQTT 5
    while (refused == 0 && ends < 20) {
        const Connection client = listener.accept();
        client.receive();
        client.send(answer);
        confirmUntilALargeOneBegins(client);
        client.close();
        ends += answer[3] == 0 ? 1 : 0;
        answer[3] = 0;
        if (ends == 10) {
            EXPECT_TRUE(eventually([&] { return refused == 7; }));
        }
    }
    EXPECT_EQ(ends, 10);
    connection.stop();
}

TEST(SeveralBrokers, AreTriedInTurnEachWithALineOfItsOwnAndASilentOneDoesNotDelayTheEnd) {
    LogCapture log;
    const Listener first;
    const Listener second;
    std::optional<Connection> silent;
    machine::BackendSettings settings = settingsFor(first);
    settings.mqtt.hosts = {"127.0.0.1", "127.0.0.1:" + std::to_string(second.port())};
    MqttTransport transport(settings, {"Catalog 1", {}});
    transport.start();
    for (const Listener* const next : {&first, &second, &first, &second}) {
        next->accept();
    }
    for (const Listener* const one : {&first, &second}) {
        EXPECT_TRUE(log.waitFor("no connection to the broker at 127.0.0.1:" + std::to_string(one->port())));
    }
    EXPECT_EQ(log.messages(3).size(), 2u) << "the same trouble is logged once";
    silent = first.accept();
    ASSERT_EQ(protocolLevel(silent->receive()), 5);
}

}  // namespace
