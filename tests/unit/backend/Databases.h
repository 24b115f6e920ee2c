#pragma once
/// Tests that run with each kind of database.
#include "backend/store/Store.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"
#include "tests/support/PostgresServer.h"

namespace vlmTest {

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

    vlmBackend::web::Readers readers{where};
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
