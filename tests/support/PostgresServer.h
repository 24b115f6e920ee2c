#pragma once
/// A PostgreSQL server of a test's own: in a temporary folder, on a free port of 127.0.0.1.
#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"

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
        run(program({"createdb", "-h", m_folder.path(), "-p", m_port, "-U", "test", name}));
        return "postgresql://test@127.0.0.1:" + m_port + "/" + name;
    }
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

  private:
    PostgresServer() {
        if (::geteuid() == 0) {
            run({"chown", "postgres", m_folder.path()});
        }
        run(program({"initdb", "-D", m_data, "-U", "test", "-A", "trust", "--no-sync", "-E", "UTF8",
                     "--locale=C.UTF-8"}));
        run(program({"pg_ctl", "-D", m_data, "-o",
                     "-p " + m_port + " -k " + m_folder.path() + " -h 127.0.0.1 -F", "-w", "start"}));
    }
    ~PostgresServer() { runToItsEnd(program({"pg_ctl", "-D", m_data, "-m", "immediate", "-w", "stop"})); }
    /// The command for a program of the server, as a user whom it does not refuse.
    static std::vector<std::string> program(std::vector<std::string> words) {
        for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql")) {
            words[0] = version.path() / "bin" / std::filesystem::path(words[0]).filename();
        }
        if (::geteuid() == 0) {
            const std::string asUser[] = {"runuser", "-u", "postgres", "--"};
            words.insert(words.begin(), std::begin(asUser), std::end(asUser));
        }
        return words;
    }
    static void run(const std::vector<std::string>& command) {
        if (const Outcome outcome = runToItsEnd(command); outcome.status != 0) {
            throw std::runtime_error(command[0] + ": " + outcome.out + outcome.err);
        }
    }

    const TemporaryFolder m_folder;
    const std::string m_data = m_folder.file("data");
    const std::string m_port = std::to_string(freePort());
    int m_databases = 0;
};

}  // namespace vlmTest
