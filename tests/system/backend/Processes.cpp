#include "Processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tests/support/Eventually.h"

extern char** environ;

namespace vlmTest {

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& output) : m_pid(-1) {
    std::vector<char*> arguments;
    for (const std::string& part : command) {
        arguments.push_back(const_cast<char*>(part.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, output.empty() ? "/dev/null" : output.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    const int error = ::posix_spawnp(&m_pid, arguments[0], &files, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        throw std::runtime_error(command[0] + ": " + std::strerror(error));
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        wait();
    }
}

void ChildProcess::signal(int number) const {
    ::kill(m_pid, number);
}

int ChildProcess::wait() {
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::uint16_t freePort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    ::bind(socket, reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(socket);
    return ntohs(address.sin_port);
}

bool waitForListener(std::uint16_t port, bool listening) {
    return eventually([&] {
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(port);
        const bool connected =
            ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(socket);
        return connected == listening;
    });
}

Broker::Broker(std::uint16_t port, std::string configuration)
    : m_port(port), m_configuration(std::move(configuration)) {
    start();
}

void Broker::start() {
    // As root it would otherwise change to a user who cannot read the folder.
    const std::string file =
        m_folder.write("mosquitto.conf", "user root\npersistence false\nlistener " + std::to_string(m_port) +
                                             " 127.0.0.1\n" + m_configuration);
    m_process.emplace_back(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", file}, m_folder.file("log"));
    if (!waitForListener(m_port)) {
        throw std::runtime_error("the broker does not listen");
    }
}

void Broker::stop() {
    m_process.clear();
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
