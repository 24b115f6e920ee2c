#pragma once
/// Tests that run with each kind of database.
#include "backend/Backend.h"
#include "backend/store/Store.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"

namespace vlmTest {

/// PostgreSQL for this program alone: in a temporary folder, on a free port of 127.0.0.1.
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

/// A new, empty database; one in a file is in this folder.
inline std::string freshDatabase(vlmBackend::store::Dialect dialect, const TemporaryFolder& folder) {
    return dialect == vlmBackend::store::Dialect::Sqlite ? folder.file("vehicles.db")
                                                         : PostgresServer::get().freshDatabase();
}

/// A store in a database of its own.
struct WithStore : TestWithParam<vlmBackend::store::Dialect> {
    /// Stores the envelope of a vehicle.
    vlmBackend::store::Outcome arrive(const std::string& prefix, std::string text, std::int64_t at) {
        const vlmBackend::store::Received received{prefix, std::move(text), "", "17", 10, at};
        return store.put({&received, 1})[0].outcome;
    }
    /// In all its steps.
    vlmBackend::store::Deleted deleteAll(std::int64_t receivedMs) {
        vlmBackend::store::Deleted all{0, 0, true};
        while (all.isMore) {
            const auto step = store.deleteBefore(receivedMs);
            all = {all.reports + step.reports, all.samples + step.samples, step.isMore};
        }
        return all;
    }
    /// Of a backend with this store.
    vlmBackend::Settings settings() {
        vlmBackend::Settings out;
        out.database = &store;
        return out;
    }

    const TemporaryFolder folder;
    const std::string where = freshDatabase(GetParam(), folder);
    vlmBackend::store::Store store{where};
};

/// And the routes of a test on it.
struct WithRoutes : WithStore {
    vlmBackend::web::Response handle(const std::string& method, const std::string& target,
                                     const std::string& body, vlmBackend::web::Role role,
                                     const std::string& type = "application/json") {
        vlmBackend::web::Request request;
        request.method = method;
        request.contentType = type;
        request.body = body;
        request.role = role;
        request.user = "ines";
        return router.handle(target, request);
    }

    vlmBackend::web::Readers readers{where, 2};
    vlmBackend::web::Router router;
};

inline std::string nameOfDialect(const testing::TestParamInfo<vlmBackend::store::Dialect>& info) {
    return info.param == vlmBackend::store::Dialect::Sqlite ? "Sqlite" : "Postgres";
}

}  // namespace vlmTest

#define INSTANTIATE_WITH_EACH_DATABASE(suite)                                                      \
    INSTANTIATE_TEST_SUITE_P(                                                                      \
        Databases, suite,                                                                          \
        testing::Values(vlmBackend::store::Dialect::Sqlite, vlmBackend::store::Dialect::Postgres), \
        vlmTest::nameOfDialect)
