#include "backend/store/Sqlite.h"

#include <sqlite3.h>

#include <filesystem>
#include <system_error>

namespace vlmBackend::store {

namespace {

constexpr int kBusyMs = 10'000;
constexpr int kCheckpointMs = 50;
constexpr std::size_t kMostPrepared = 64;

/// SQLite's errors become those of the interface.
template <class Work>
auto guarded(Work&& work) {
    try {
        return work();
    } catch (const SQLite::Exception& error) {
        throw DatabaseError(error.getErrorCode() == SQLITE_INTERRUPT
                                ? "the query takes too long, or the backend ends"
                                : error.what());
    }
}

void bind(SQLite::Statement& statement, std::span<const Cell> parameters) {
    statement.reset();
    statement.clearBindings();
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        const std::string name = "$" + std::to_string(i + 1);
        std::visit(
            [&](const auto& value) {
                using Value = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<Value, std::monostate>) {
                    statement.bind(name);
                } else if constexpr (std::is_same_v<Value, Bytes>) {
                    statement.bind(name, value.data.data(), static_cast<int>(value.data.size()));
                } else {
                    statement.bind(name, value);
                }
            },
            parameters[i]);
    }
}

Row rowOf(SQLite::Statement& statement) {
    Row row;
    const int count = statement.getColumnCount();
    row.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const SQLite::Column column = statement.getColumn(i);
        if (column.isNull()) {
            row.emplace_back();
        } else if (column.isInteger()) {
            row.emplace_back(column.getInt64());
        } else if (column.isFloat()) {
            row.emplace_back(column.getDouble());
        } else if (column.isBlob()) {
            row.emplace_back(Bytes{column.getString()});
        } else {
            row.emplace_back(column.getString());
        }
    }
    return row;
}

}  // namespace

Sqlite::Sqlite(const std::string& file, bool readOnly)
    : m_database(guarded([&] {
          return SQLite::Database(
              file, readOnly ? SQLite::OPEN_READONLY : SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, kBusyMs);
      })) {
    Sqlite::script("PRAGMA foreign_keys = ON");
    if (!readOnly) {
        // FULL: a commit is on the disk before a vehicle deletes its copy.
        Sqlite::script("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA wal_autocheckpoint = 0");
    }
}

void Sqlite::script(const std::string& statements) {
    m_deadline = std::chrono::steady_clock::now() + m_limit;
    guarded([&] { m_database.exec(statements); });
}

SQLite::Statement& Sqlite::prepared(const std::string& statement) {
    if (m_prepared.size() > kMostPrepared) {
        m_prepared.clear();
    }
    auto& found = m_prepared[statement];
    if (!found) {
        found = std::make_unique<SQLite::Statement>(m_database, statement);
    }
    return *found;
}

void Sqlite::stream(const std::string& statement, std::span<const Cell> parameters,
                    const std::function<bool(const Row&)>& each) {
    guarded([&] {
        SQLite::Statement& ready = prepared(statement);
        bind(ready, parameters);
        // A statement that stays open keeps its read transaction, and with it the log, growing.
        const std::unique_ptr<SQLite::Statement, void (*)(SQLite::Statement*)> closed(
            &ready, [](SQLite::Statement* used) { used->tryReset(); });
        m_deadline = std::chrono::steady_clock::now() + m_limit;
        while (ready.executeStep()) {
            if (!each(rowOf(ready))) {
                break;
            }
        }
    });
}

std::vector<Row> Sqlite::query(const std::string& statement, std::span<const Cell> parameters) {
    std::vector<Row> rows;
    stream(statement, parameters, [&rows](const Row& row) {
        rows.push_back(row);
        return true;
    });
    return rows;
}

void Sqlite::insertSamples(std::span<const SampleRow> samples) {
    guarded([&] {
        SQLite::Statement& insert = prepared(
            "INSERT INTO samples (report, vehicle, event, instance, measured, received, vals) "
            "VALUES (?, ?, ?, ?, ?, ?, ?)");
        for (const SampleRow& sample : samples) {
            insert.reset();
            insert.bind(1, sample.report);
            insert.bind(2, sample.vehicle);
            insert.bind(3, sample.event);
            insert.bind(4, sample.instance);
            insert.bind(5, sample.measuredMs);
            insert.bind(6, sample.receivedMs);
            insert.bind(7, std::string(sample.values));
            insert.exec();
        }
    });
}

void Sqlite::tidy() {
    if (walBytes() > kWalLimit / 2) {
        // Waits for readers, but not for one that exports a month: storing goes on, and the next call tries
        // again.
        guarded([&] { m_database.setBusyTimeout(kCheckpointMs); });
        query("PRAGMA wal_checkpoint(TRUNCATE)", {});
        guarded([&] { m_database.setBusyTimeout(kBusyMs); });
    }
}

int Sqlite::isLate(void* self) {
    return std::chrono::steady_clock::now() > static_cast<Sqlite*>(self)->m_deadline ? 1 : 0;
}

void Sqlite::limitTime(std::chrono::milliseconds limit) {
    constexpr int kSteps = 10'000;  // of SQLite's machine, between two looks at the clock
    m_limit = limit;
    sqlite3_progress_handler(m_database.getHandle(), kSteps, limit.count() > 0 ? &Sqlite::isLate : nullptr,
                             this);
}

void Sqlite::interrupt() {
    sqlite3_interrupt(m_database.getHandle());
}

std::int64_t Sqlite::walBytes() {
    std::error_code none;
    const auto size = std::filesystem::file_size(m_database.getFilename() + "-wal", none);
    return none ? 0 : static_cast<std::int64_t>(size);
}

}  // namespace vlmBackend::store
