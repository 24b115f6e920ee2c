#pragma once
/// What a transport meets: a broker and certificates, made by programs that a test starts and ends, each by
/// its pid, and another client of the broker.
#include <cstdlib>

#include "backend/MqttConnection.h"
#include "tests/support/Loopback.h"

namespace vlmTest {

/// mosquitto on its own port, with additional configuration lines.
class Broker {
  public:
    explicit Broker(std::uint16_t port) : m_port(port) { restart(); }
    /// Kills it, like a crash.
    void stop() { m_process.reset(); }
    void restart(const std::string& more = "") {
        stop();
        // Otherwise mosquitto, started by root, changes to a user who cannot read the folder.
        const std::string file = m_folder.write(
            "mosquitto.conf", "user root\npersistence false\nlistener " + std::to_string(m_port) +
                                  " 127.0.0.1\nallow_anonymous true\n" + more);
        const Descriptor log(openForWriting(m_folder.file("log")));
        m_process =
            std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", file},
                                           std::vector<std::string>(), log, log);
        EXPECT_TRUE(eventually([this] { return somebodyListensAt(m_port); }));
    }

  private:
    const std::uint16_t m_port;
    const TemporaryFolder m_folder;
    std::unique_ptr<ChildProcess> m_process;  ///< nullptr while stopped
};

/// A client of the broker: publishes, and collects messages by their topic.
class Observer {
  public:
    using Take = std::function<void(const std::string& topic, const std::string& payload)>;

    /// `take` is called for each message on the network thread.
    explicit Observer(
        const machine::MqttBackend& settings, std::vector<std::string> topics = {"#"},
        std::string clientId = "observer", Take take = [](const auto&...) {})
        : m_take(std::move(take)),
          m_connection(settings, std::move(clientId), std::move(topics), {},
                       {[this] { m_isConnected = true; },
                        [this](const std::string& topic, const std::string& payload, bool) {
                            m_take(topic, payload);
                            const std::lock_guard<std::mutex> lock(m_mutex);
                            m_received[topic].push_back(payload);
                        },
                        [](int, int) {}, [](int, const std::string&) {}}) {
        m_connection.start();
        EXPECT_TRUE(eventually([this] { return m_isConnected.load(); }));
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
    const Take m_take;
    std::atomic<bool> m_isConnected{false};
    std::mutex m_mutex;
    std::map<std::string, std::vector<std::string>> m_received;
    kyo::orx::MqttConnection m_connection;
};

/// Certificates from openssl in a folder: authorities "ca" and "other-ca"; signed by "ca": "server" (for
/// 127.0.0.1), "expired", "elsewhere" (for another host) and "client". Each has a .crt and a .key file.
class Certificates {
  public:
    Certificates() {
        m_folder.write("make.sh", R"(set -e
unset OPENSSL_CONF
make() {
    name=$1
    shift
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=$name -days 30 \
        -keyout $name.key -out $name.crt "$@"
}
make ca
make other-ca
signer="-CA ca.crt -CAkey ca.key"
make server $signer -addext subjectAltName=IP:127.0.0.1
make elsewhere $signer -addext subjectAltName=DNS:elsewhere.example
make client $signer -addext subjectAltName=DNS:vehicle.example
cp server.key expired.key
openssl req -new -key expired.key -subj /CN=expired -addext subjectAltName=IP:127.0.0.1 |
    openssl x509 -req $signer -copy_extensions copy -days 0 -out expired.crt  # ends in the second in which it begins
)");
        EXPECT_EQ(std::system(("cd " + m_folder.path() + " && sh make.sh >make.log 2>&1").c_str()), 0);
    }
    std::string file(const std::string& name) const { return m_folder.file(name); }
    /// Broker lines for TLS with that certificate.
    std::string brokerLines(const std::string& certificate) const {
        return "cafile " + file("ca.crt") + "\ncertfile " + file(certificate + ".crt") + "\nkeyfile " +
               file(certificate + ".key") + "\n";
    }

  private:
    const TemporaryFolder m_folder;
};

}  // namespace vlmTest
