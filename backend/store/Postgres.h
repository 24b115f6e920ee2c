#pragma once
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "backend/store/Sql.h"

struct pg_conn;
struct pg_cancel;
struct pg_result;

namespace vlmBackend::store {

/// A connection to a PostgreSQL server. Samples are in one partition for each day (UTC) of their reception.
/// Characters that PostgreSQL's text cannot contain (U+0000, bytes that are not UTF-8) become U+FFFD.
class Postgres : public Sql {
  public:
    Postgres(const std::string& where, bool readOnly);
    ~Postgres() override;

    Dialect dialect() const override { return Dialect::Postgres; }
    void script(const std::string& statements) override;
    std::vector<Row> query(const std::string& statement, std::span<const Cell> parameters) override;
    void stream(const std::string& statement, std::span<const Cell> parameters,
                const std::function<bool(const Row&)>& each) override;
    void prepareSamples(std::int64_t receivedMs) override;
    void insertSamples(std::span<const SampleRow> samples) override;
    bool dropSamples(std::int64_t& receivedMs) override;
    void tidy() override {}
    void limitTime(std::chrono::milliseconds limit) override;
    void interrupt() override;
    std::int64_t walBytes() override { return 0; }

  private:
    using Result = std::unique_ptr<pg_result, void (*)(pg_result*)>;

    void readPartitions();
    const std::string* prepared(const std::string& statement, const std::vector<unsigned>& types);
    void copy(const std::string& statement, const std::string& data);
    [[noreturn]] void fail(const pg_result* result) const;
    Result check(pg_result* result) const;

    std::unique_ptr<pg_conn, void (*)(pg_conn*)> m_connection;
    std::unique_ptr<pg_cancel, void (*)(pg_cancel*)> m_cancel;
    std::chrono::milliseconds m_limit{0};
    struct Statement {
        std::string name;
        bool isPrepared = false;
    };
    bool m_prepares;
    std::map<std::pair<std::string, std::vector<unsigned>>, Statement> m_statements;  ///< by text and types
    std::set<std::int64_t> m_partitions;  ///< days since 1970 that exist
};

}  // namespace vlmBackend::store
