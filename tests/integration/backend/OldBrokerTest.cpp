/// Brokers that no package provides: one that only knows MQTT 3.1.1, and one that never answers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "backend/MqttConnection.h"
#include "backend/MqttTransport.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace {

using kyo::orx::MqttConnection;
using kyo::orx::MqttTransport;
using vlmTest::LogCapture;

/// A socket that listens on a free loopback port and reads from its clients.
class Listener {
  public:
    Listener() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), size);
        ::listen(m_socket, 4);
        ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
    }
    ~Listener() { ::close(m_socket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t port() const { return m_port; }
    /// The next connection, or -1 after a time-out.
    int accept() const { return readable(m_socket) ? ::accept(m_socket, nullptr, nullptr) : -1; }
    /// The bytes of one read; empty after a time-out.
    static std::string receive(int connection) {
        char buffer[4096];
        const ssize_t got = readable(connection) ? ::recv(connection, buffer, sizeof buffer, 0) : 0;
        return {buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }

  private:
    static bool readable(int handle) {
        pollfd wait{handle, POLLIN, 0};
        return ::poll(&wait, 1, 20000) > 0;
    }
    const int m_socket;
    std::uint16_t m_port = 0;
};

machine::BackendSettings settingsFor(const Listener& listener) {
    machine::BackendSettings settings;
    settings.mqtt.port = listener.port();
    settings.mqtt.prefix = "test/old";
    settings.mqtt.reconnectMaxSeconds = 1;
    return settings;
}

/// The protocol level in a CONNECT packet, after the name "MQTT".
int protocolLevel(const std::string& packet) {
    const auto at = packet.find("MQTT");
    return at == std::string::npos || packet[0] != 0x10 ? -1 : packet.at(at + 4);
}

/// The keep-alive time in a CONNECT packet, in seconds, after the protocol level and the flags.
int keepAlive(const std::string& packet) {
    const auto at = packet.find("MQTT");
    return at == std::string::npos || packet.size() < at + 8
               ? -1
               : static_cast<unsigned char>(packet[at + 6]) * 256 +
                     static_cast<unsigned char>(packet[at + 7]);
}

TEST(OldBroker, GetsTheOlderProtocolAtOnceWhenItRefusesTheNewerOne) {
    LogCapture log;
    const Listener listener;
    MqttTransport transport(settingsFor(listener), {"Catalog 1", {}});
    transport.start();

    const int first = listener.accept();
    ASSERT_GE(first, 0);
    const std::string packet = Listener::receive(first);
    EXPECT_EQ(protocolLevel(packet), 5);
    EXPECT_EQ(keepAlive(packet), 30) << "else a broker that is gone stays unnoticed";
    const char refusal[] = {0x20, 2, 0, 1};
    ASSERT_EQ(::send(first, refusal, sizeof refusal, 0), 4);

    const int second = listener.accept();
    ::close(first);
    ASSERT_GE(second, 0);
    EXPECT_EQ(protocolLevel(Listener::receive(second)), 4);
    const char welcome[] = {0x20, 2, 0, 0};
    ASSERT_EQ(::send(second, welcome, sizeof welcome, 0), 4);
    EXPECT_TRUE(log.waitFor("connected to the broker"));
    EXPECT_TRUE(log.hasPart(5, "does not speak MQTT 5; trying 3.1.1"));
    std::string received;
    const auto receiveUntil = [&](const char* text) {
        while (received.find(text) == std::string::npos) {
            const std::string more = Listener::receive(second);
            ASSERT_FALSE(more.empty());
            received += more;
        }
    };
    receiveUntil("/config/response");
    EXPECT_EQ(received.find("online"), std::string::npos) << "the answer could miss the subscriptions";
    const auto answer = [second](char identifier, char granted) {
        const char answered[] = {static_cast<char>(0x90), 3, 0, identifier, granted};
        EXPECT_EQ(::send(second, answered, sizeof answered, 0), 5);
    };
    answer(1, static_cast<char>(0x80));
    answer(2, 1);
    receiveUntil("\"state\":\"online\"");
    EXPECT_TRUE(log.waitFor("refuses the subscription of test/old/mastercontrol"));

    received.clear();
    receiveUntil("/mastercontrol");  // again, after a pause
    const auto again = received.find(static_cast<char>(0x82));
    ASSERT_LT(again + 3, received.size());
    answer(received[again + 3], 1);
    received.clear();
    receiveUntil("\"state\":\"online\"");
    ::close(second);
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
        const int connection = listener.accept();
        ASSERT_GE(connection, 0);
        came.push_back(std::chrono::steady_clock::now());
        Listener::receive(connection);
        const char welcome[] = {0x20, 3, 0, 0, 0};
        ASSERT_EQ(::send(connection, welcome, sizeof welcome, 0), 5);
        Listener::receive(connection);  // what follows upon the welcome
        ::close(connection);
    }
    EXPECT_GT(came[2] - came[1], std::chrono::milliseconds(1490)) << "three quarters of two seconds";
    EXPECT_GT(came[3] - came[2], std::chrono::milliseconds(2990));
}

/// Confirms each message until one of more than 127 bytes begins.
void confirmUntilALongOneBegins(int connection) {
    std::string received;
    for (;;) {
        const std::size_t length = received.size() < 2 ? 0 : static_cast<unsigned char>(received[1]);
        if (length > 127) {
            return;
        }
        if (received.size() < 2 + length || received.size() < 2) {
            const std::string more = Listener::receive(connection);
            if (more.empty()) {
                return;
            }
            received += more;
            continue;
        }
        if ((static_cast<unsigned char>(received[0]) & 0xF0u) == 0x30u) {
            const std::size_t at = 4u + static_cast<unsigned char>(received[3]);
            const char confirmation[] = {0x40, 2, received[at], received[at + 1]};
            EXPECT_EQ(::send(connection, confirmation, sizeof confirmation, MSG_NOSIGNAL), 4);
        }
        received.erase(0, 2 + length);
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
    MqttConnection connection(settingsFor(listener).mqtt, "vehicle", {}, {},
                              {[&] { publish("small", 1, {}); }, [](const auto&...) {},
                               [&](int, int) {
                                   MqttConnection::Form form;
                                   form.isForOneConnection = true;
                                   form.tag = 7;
                                   publish(std::string(1000, 'x'), 2, std::move(form));
                               },
                               [](int, const std::string&) {},
                               [&refused](std::uint64_t tag, int reason) {
                                   EXPECT_EQ(reason, MQTT_RC_PACKET_TOO_LARGE);
                                   refused = tag;
                               }});
    made = &connection;
    connection.start();
    int ends = 0;
    const char* answer = "\x20\x02\x00\x01";  // no MQTT 5
    while (refused == 0 && ends < 20) {
        const int client = listener.accept();
        ASSERT_GE(client, 0);
        Listener::receive(client);
        ASSERT_EQ(::send(client, answer, 4, 0), 4);
        confirmUntilALongOneBegins(client);
        ::close(client);
        ends += answer[3] == 0 ? 1 : 0;
        answer = "\x20\x02\x00\x00";
        if (ends == 10) {
            EXPECT_TRUE(vlmTest::eventually([&] { return refused == 7; }));
        }
    }
    EXPECT_EQ(ends, 10);
    connection.stop();
}

TEST(AnyBroker, IsNeverGivenAMessageThatIsLargerThanAllThatMayWaitForIt) {
    MqttConnection connection({}, "vehicle", {}, {}, {});
    std::string error;
    EXPECT_EQ(
        connection.publish("t", std::string(MqttConnection::kMaxUnconfirmedBytes, 'x'), false, 1, error),
        MqttConnection::kTooLarge);
}

TEST(SeveralBrokers, AreTriedInTurnEachWithALineOfItsOwn) {
    LogCapture log;
    const Listener first;
    const Listener second;
    machine::BackendSettings settings = settingsFor(first);
    settings.mqtt.hosts = {"127.0.0.1", "127.0.0.1:" + std::to_string(second.port())};
    MqttTransport transport(settings, {"Catalog 1", {}});
    transport.start();
    for (const Listener* const next : {&first, &second, &first, &second}) {
        const int connection = next->accept();
        ASSERT_GE(connection, 0);
        ::close(connection);
    }
    for (const Listener* const one : {&first, &second}) {
        EXPECT_TRUE(log.waitFor("no connection to the broker at 127.0.0.1:" + std::to_string(one->port())));
    }
    EXPECT_EQ(log.messages(3).size(), 2u) << "the same trouble is logged once";
}

TEST(SilentBroker, DoesNotDelayTheEnd) {
    const Listener listener;
    auto transport =
        std::make_unique<MqttTransport>(settingsFor(listener), kyo::orx::Presence{"Catalog 1", {}});
    transport->start();
    const int connection = listener.accept();
    ASSERT_GE(connection, 0);
    ASSERT_EQ(protocolLevel(Listener::receive(connection)), 5);
    transport.reset();  // must not wait for the broker
    ::close(connection);
}

}  // namespace
