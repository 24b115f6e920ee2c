#pragma once
#include <SQLiteCpp/SQLiteCpp.h>

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// A file with a write-ahead log. Committed data survive a power cut. Only tidy() runs checkpoints; they keep
/// the log below kWalLimit, unless a reader holds an older state.
class Sqlite : public Sql {
  public:
    static constexpr std::int64_t kWalLimit = 16 * 1024 * 1024;

    Sqlite(const std::string& file, bool readOnly);

    Dialect dialect() const override { return Dialect::Sqlite; }
    void script(const std::string& statements) override;
    std::vector<Row> query(const std::string& statement, std::span<const Cell> parameters) override;
    void stream(const std::string& statement, std::span<const Cell> parameters,
                const std::function<bool(const Row&)>& each) override;
    void insertSamples(std::span<const SampleRow> samples) override;
    void tidy() override;
    std::int64_t walBytes() override;
    void limitTime(std::chrono::milliseconds limit) override;
    void interrupt() override;

  private:
    SQLite::Statement& prepared(const std::string& statement);

    static int isLate(void* self);

    SQLite::Database m_database;
    std::chrono::milliseconds m_limit{0};              ///< 0: none
    std::chrono::steady_clock::time_point m_deadline;  ///< of the statement that runs
    std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>> m_prepared;
};

}  // namespace vlmBackend::store
