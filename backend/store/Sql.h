#pragma once
/// One connection to a database. SQLite and PostgreSQL share the statements; where their languages differ, a
/// statement names the difference (Dialect).
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vlmBackend::store {

/// The database cannot be reached, is full, or refuses a statement.
struct DatabaseError : std::runtime_error {
    enum class Cause : std::uint8_t {
        Other,     ///< it cannot be reached, is full, or the statement is wrong
        Data,      ///< the database cannot store a value
        Conflict,  ///< another connection was first; the whole transaction may be tried again
    };
    explicit DatabaseError(const std::string& text, Cause why = Cause::Other)
        : std::runtime_error(text), cause(why) {}
    Cause cause;
};

struct Bytes {
    std::string data;
    bool operator==(const Bytes&) const = default;
};

/// A parameter or a result: null, integer, real, text, bytes.
using Cell = std::variant<std::monostate, std::int64_t, double, std::string, Bytes>;
using Row = std::vector<Cell>;

std::int64_t integer(const Cell& cell);  ///< 0 if it is not a number
double real(const Cell& cell);           ///< 0 if it is not a number
std::string text(const Cell& cell);      ///< empty for null; numbers as text

/// Replaces the escapes in JSON that PostgreSQL refuses by U+FFFD: U+0000 and halves of surrogate pairs.
std::string storableJson(std::string json);

struct SampleRow {
    std::int64_t report = 0;
    std::int64_t vehicle = 0;
    std::int64_t event = 0;
    std::int64_t instance = 0;
    std::int64_t measuredMs = 0;  ///< UTC, by the vehicle's clock
    std::int64_t receivedMs = 0;  ///< UTC, by the backend's clock
    std::string_view values;      ///< a JSON object
};

enum class Dialect { Sqlite, Postgres };

/// Used by one thread at a time. All functions throw DatabaseError.
class Sql {
  public:
    virtual ~Sql() = default;
    Sql(const Sql&) = delete;
    Sql& operator=(const Sql&) = delete;

    virtual Dialect dialect() const = 0;
    /// Statements without parameters and results, separated by semicolons.
    virtual void script(const std::string& statements) = 0;
    /// One statement with the parameters $1, $2, ...
    virtual std::vector<Row> query(const std::string& statement, std::span<const Cell> parameters = {}) = 0;
    /// Passes row after row to `each` until it returns false. Memory does not grow with the rows.
    virtual void stream(const std::string& statement, std::span<const Cell> parameters,
                        const std::function<bool(const Row&)>& each) = 0;
    /// Creates the partitions of the day of `receivedMs` and of the next day. Call it outside a transaction.
    virtual void prepareSamples(std::int64_t /*receivedMs*/) {}
    /// Call it inside a transaction.
    virtual void insertSamples(std::span<const SampleRow> samples) = 0;
    /// Drops the oldest partition of a day before `receivedMs`; false when there is none. Sets `receivedMs`
    /// to the start of its day, if the database has partitions. Call it outside a transaction.
    virtual bool dropSamples(std::int64_t& /*receivedMs*/) { return false; }
    /// Keeps files short. Call it between transactions.
    virtual void tidy() = 0;
    /// Bytes of the write-ahead log that are not in the database file yet.
    virtual std::int64_t walBytes() = 0;
    /// Statements that take longer than `limit` fail from now on.
    virtual void limitTime(std::chrono::milliseconds limit) = 0;
    /// Makes the running statement fail, if the database can do that. Any thread may call it.
    virtual void interrupt() {}

  protected:
    Sql() = default;
};

/// True if `where` names a server, see connect().
bool isServer(const std::string& where);

/// `where`: "postgresql://..." or "host=..." names a server, anything else the file of SQLite. `readOnly`:
/// waits for no writer and changes nothing.
std::unique_ptr<Sql> connect(const std::string& where, bool readOnly = false);

/// Rolls back unless it was committed.
class Transaction {
  public:
    explicit Transaction(Sql& sql);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

  private:
    Sql& m_sql;
    bool m_open = true;
};

}  // namespace vlmBackend::store
