#pragma once
/// A PostgreSQL server of a test's own: in a temporary folder, on a free port of 127.0.0.1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/ChildProcess.h"

namespace vlmTest {

class PostgresServer {
  public:
    /// The server of this process, started at the first call. Throws std::runtime_error with the reason.
    static PostgresServer& get() {
        static PostgresServer server;
        return server;
    }
    /// Connection string of a new, empty database.
    std::string freshDatabase() {
        const std::string name = "test" + std::to_string(++m_databases);
        run({m_programs + "/createdb", "-h", m_folder.path(), "-p", m_port, "-U", "test", name});
        return "postgresql://test@127.0.0.1:" + m_port + "/" + name;
    }
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

  private:
    PostgresServer() {
        for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql")) {
            m_programs = entry.path().string() + "/bin";
        }
        const bool isRoot = ::geteuid() == 0;  // the server refuses that user
        if (isRoot) {
            m_user = {"runuser", "-u", "postgres", "--"};
            run({"chown", "postgres", m_folder.path()});
        }
        run({m_programs + "/initdb", "-D", data(), "-U", "test", "-A", "trust", "--no-sync", "-E", "UTF8",
             "--locale=C.UTF-8"},
            true);
        m_port = freePort();
        std::vector<std::string> command = m_user;
        for (const std::string& word :
             {m_programs + "/postgres", std::string("-D"), data(), std::string("-p"), m_port,
              std::string("-k"), m_folder.path(), std::string("-c"),
              std::string("listen_addresses=127.0.0.1"), std::string("-c"), std::string("fsync=off")}) {
            command.push_back(word);
        }
        m_log = std::make_unique<Descriptor>(openForWriting(m_folder.file("log")));
        m_server = std::make_unique<ChildProcess>(command, std::vector<std::string>{}, *m_log, *m_log);
        if (!eventually([this] {
                return runToItsEnd({m_programs + "/pg_isready", "-h", m_folder.path(), "-p", m_port})
                           .status == 0;
            })) {
            throw std::runtime_error("PostgreSQL does not start: " + readFile(m_folder.file("log")));
        }
    }
    ~PostgresServer() {
        std::vector<std::string> stop = m_user;
        for (const std::string& word : {m_programs + "/pg_ctl", std::string("-D"), data(), std::string("-m"),
                                        std::string("immediate"), std::string("-w"), std::string("stop")}) {
            stop.push_back(word);
        }
        try {
            runToItsEnd(stop);
            m_server->wait();
        } catch (const std::exception&) {
            // The process ends anyway.
        }
    }
    void run(std::vector<std::string> command, bool asUser = false) {
        if (asUser) {
            command.insert(command.begin(), m_user.begin(), m_user.end());
        }
        const Outcome outcome = runToItsEnd(command);
        if (outcome.status != 0) {
            throw std::runtime_error(command[0] + ": " + outcome.out + outcome.err);
        }
    }
    static std::string freePort() {
        const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(probe, reinterpret_cast<sockaddr*>(&address), size);
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
        return std::to_string(ntohs(address.sin_port));
    }
    std::string data() const { return m_folder.file("data"); }

    const TemporaryFolder m_folder;
    std::string m_programs;
    std::string m_port;
    std::vector<std::string> m_user;  ///< before a command that must not run as root
    std::unique_ptr<Descriptor> m_log;
    std::unique_ptr<ChildProcess> m_server;
    int m_databases = 0;
};

}  // namespace vlmTest
