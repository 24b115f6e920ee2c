#pragma once
/// Tests that run with each kind of database.
#include <gtest/gtest.h>

#include <string>

#include "backend/store/Sql.h"
#include "tests/support/PostgresServer.h"
#include "tests/support/TemporaryFolder.h"

namespace vlmTest {

/// A new, empty database.
class FreshDatabase {
  public:
    explicit FreshDatabase(vlmBackend::store::Dialect dialect)
        : where(dialect == vlmBackend::store::Dialect::Sqlite ? m_folder.file("vehicles.db")
                                                              : PostgresServer::get().freshDatabase()) {}

  private:
    const TemporaryFolder m_folder;

  public:
    const std::string where;
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
