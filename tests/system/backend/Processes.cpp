#include "Processes.h"

#include <cstdlib>

#include "tests/support/Loopback.h"

namespace vlmTest {

Broker::Broker(std::uint16_t port, std::string configuration)
    : m_port(port), m_configuration(std::move(configuration)) {
    start();
}

void Broker::start() {
    // Otherwise mosquitto, started by root, changes to a user who cannot read the folder.
    const std::string file =
        m_folder.write("mosquitto.conf", "user root\npersistence false\nlistener " + std::to_string(m_port) +
                                             " 127.0.0.1\n" + m_configuration);
    const Descriptor log(openForWriting(m_folder.file("log")));
    m_process = std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", file},
                                               std::vector<std::string>(), log, log);
    if (!eventually([this] { return somebodyListensAt(m_port); })) {
        throw std::runtime_error("the broker does not listen");
    }
}

void Broker::restart(std::string configuration) {
    stop();
    m_configuration = std::move(configuration);
    start();
}

Certificates::Certificates() {
    m_folder.write("make.sh", R"(set -e
key() {
    openssl ecparam -genkey -name prime256v1 -out $1.key
}
for ca in ca other-ca; do
    key $ca
    openssl req -x509 -new -key $ca.key -subj /CN=$ca -days 30 -out $ca.crt
done
issue() {
    key $1
    openssl req -new -key $1.key -subj /CN=$1 -out $1.csr
    echo "subjectAltName=$2" >$1.ext
    openssl x509 -req -in $1.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days $3 -extfile $1.ext -out $1.crt
}
issue server IP:127.0.0.1 30
issue expired IP:127.0.0.1 0  # ends in the second in which it begins
issue elsewhere DNS:elsewhere.example 30
issue client DNS:vehicle.example 30
)");
    if (std::system(("cd " + m_folder.path() + " && sh make.sh >make.log 2>&1").c_str()) != 0) {
        throw std::runtime_error("openssl has made no certificates");
    }
}

std::string Certificates::brokerLines(const std::string& certificate) const {
    return "cafile " + file("ca.crt") + "\ncertfile " + file(certificate + ".crt") + "\nkeyfile " +
           file(certificate + ".key") + "\n";
}

}  // namespace vlmTest
