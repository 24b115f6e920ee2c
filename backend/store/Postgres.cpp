#include "backend/store/Postgres.h"

#include <endian.h>
#include <libpq-fe.h>
#include <simdjson.h>

#include <charconv>
#include <cstring>

#include "backend/store/Export.h"

namespace vlmBackend::store {

namespace {

constexpr std::int64_t kDayMs = 24LL * 3600 * 1000;
constexpr std::size_t kCopyPart = 1u << 20;  // bytes that are handed to the library at once

// The types by which results differ, of the server's pg_type.
enum Type : Oid {
    Bool = 16,
    Bytea = 17,
    Int8 = 20,
    Int2 = 21,
    Int4 = 23,
    Float4 = 700,
    Float8 = 701,
    Numeric = 1700
};

std::int64_t dayOf(std::int64_t ms) {
    return ms >= 0 ? ms / kDayMs : (ms - kDayMs + 1) / kDayMs;
}

/// "samples_20261125".
std::string partitionName(std::int64_t day) {
    std::string name = "samples_";
    for (const char c : utcText(day * kDayMs).substr(0, 10)) {
        name += c == '-' ? "" : std::string(1, c);
    }
    return name;
}

/// Replaces what the server refuses in a text.
std::string cleanText(std::string text) {
    if (simdjson::validate_utf8(text) && text.find('\0') == std::string::npos) {
        return text;
    }
    constexpr std::string_view unknown = "\xEF\xBF\xBD";
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t length = 1;
        while (length < 4 && at + length < text.size() &&
               !simdjson::validate_utf8(text.data() + at, length)) {
            ++length;
        }
        if (text[at] != '\0' && simdjson::validate_utf8(text.data() + at, length)) {
            out.append(text, at, length);
            at += length;
        } else {
            out += unknown;
            ++at;
        }
    }
    return out;
}

/// Parameters in the form of the library; lives as long as their call.
class Parameters {
  public:
    explicit Parameters(std::span<const Cell> cells) {
        m_texts.reserve(cells.size());
        for (const Cell& cell : cells) {
            const bool isNull = std::holds_alternative<std::monostate>(cell);
            const bool isBytes = std::holds_alternative<Bytes>(cell);
            types.push_back(isBytes                                      ? Oid{Bytea}
                            : std::holds_alternative<std::int64_t>(cell) ? Oid{Int8}
                            : std::holds_alternative<double>(cell)       ? Oid{Float8}
                                                                         : Oid{0});
            m_texts.push_back(std::holds_alternative<std::string>(cell)
                                  ? cleanText(std::get<std::string>(cell))
                              : isBytes ? std::string()
                                        : text(cell));
            values.push_back(isNull    ? nullptr
                             : isBytes ? std::get<Bytes>(cell).data.data()
                                       : m_texts.back().c_str());
            lengths.push_back(isBytes ? static_cast<int>(std::get<Bytes>(cell).data.size()) : 0);
            formats.push_back(isBytes ? 1 : 0);
        }
    }
    std::vector<Oid> types;
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;

  private:
    std::vector<std::string> m_texts;
};

template <class Number>
bool readNumber(std::string_view text, Number& out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc{} && end == text.data() + text.size();
}

Cell cellOf(const PGresult* result, int row, int column) {
    if (PQgetisnull(result, row, column) != 0) {
        return {};
    }
    const std::string_view text(PQgetvalue(result, row, column),
                                static_cast<std::size_t>(PQgetlength(result, row, column)));
    std::int64_t whole = 0;
    double number = 0;
    switch (PQftype(result, column)) {
        case Bool:
            return std::int64_t{text == "t"};
        case Int2:
        case Int4:
        case Int8:
            readNumber(text, whole);
            return whole;
        case Float4:
        case Float8:
            readNumber(text, number);
            return number;
        case Numeric:  // sums, and members with 64 bits without a sign
            if (readNumber(text, whole)) {
                return whole;
            }
            if (text.find('.') != std::string_view::npos && readNumber(text, number)) {
                return number;
            }
            return std::string(text);
        case Bytea: {
            std::size_t size = 0;
            const std::unique_ptr<unsigned char, void (*)(void*)> bytes(
                PQunescapeBytea(reinterpret_cast<const unsigned char*>(text.data()), &size), PQfreemem);
            return Bytes{std::string(reinterpret_cast<const char*>(bytes.get()), bytes ? size : 0)};
        }
        default:
            return std::string(text);
    }
}

/// COPY's binary form.
class CopyData {
  public:
    CopyData() { m_data.append("PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0\0", 19); }
    void row(const SampleRow& sample) {
        number<std::uint16_t>(htobe16(7));
        for (const std::int64_t value : {sample.report, sample.vehicle, sample.event, sample.instance,
                                         sample.measuredMs, sample.receivedMs}) {
            number<std::uint32_t>(htobe32(8));
            number<std::uint64_t>(htobe64(static_cast<std::uint64_t>(value)));
        }
        number<std::uint32_t>(htobe32(static_cast<std::uint32_t>(sample.values.size() + 1)));
        m_data += '\1';  // version of jsonb's form
        m_data += sample.values;
    }
    const std::string& finished() {
        number<std::uint16_t>(0xFFFF);
        return m_data;
    }

  private:
    template <class Number>
    void number(Number inNetworkOrder) {
        char bytes[sizeof inNetworkOrder];
        std::memcpy(bytes, &inNetworkOrder, sizeof bytes);
        m_data.append(bytes, sizeof bytes);
    }
    std::string m_data;
};

std::string lineOf(const char* message) {
    std::string text = message;
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

}  // namespace

Postgres::Postgres(const std::string& where, bool readOnly)
    : m_connection(nullptr, PQfinish), m_cancel(nullptr, PQfreeCancel), m_prepares(!readOnly) {
    // What `where` contains comes later and counts. A server that is gone is noticed within half a minute.
    const char* const names[] = {"connect_timeout",  "keepalives_idle",  "keepalives_interval",
                                 "keepalives_count", "tcp_user_timeout", "fallback_application_name",
                                 "dbname",           "client_encoding",  nullptr};
    const char* const values[] = {"5",           "10",          "5",    "3",    "30000",
                                  "vlm-backend", where.c_str(), "UTF8", nullptr};
    m_connection.reset(PQconnectdbParams(names, values, 1));
    if (m_connection == nullptr || PQstatus(m_connection.get()) != CONNECTION_OK) {
        throw DatabaseError(m_connection == nullptr ? "out of memory"
                                                    : lineOf(PQerrorMessage(m_connection.get())));
    }
    m_cancel.reset(PQgetCancel(m_connection.get()));
    PQsetNoticeProcessor(
        m_connection.get(), [](void*, const char*) {}, nullptr);
    Postgres::script(std::string("SET timezone = 'UTC'; SET lock_timeout = '10s'; SET bytea_output = 'hex'; "
                                 "SET default_transaction_read_only = ") +
                     (readOnly ? "on" : "off"));
}

Postgres::~Postgres() = default;

void Postgres::fail(const pg_result* result) const {
    const char* const state = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const std::string_view known = state == nullptr ? "" : state;
    throw DatabaseError(lineOf(PQerrorMessage(m_connection.get())),
                        known.starts_with("22")   ? DatabaseError::Cause::Data
                        : known.starts_with("40") ? DatabaseError::Cause::Conflict
                                                  : DatabaseError::Cause::Other);
}

Postgres::Result Postgres::check(pg_result* result) const {
    Result owned(result, PQclear);
    switch (PQresultStatus(result)) {
        case PGRES_COMMAND_OK:
        case PGRES_TUPLES_OK:
        case PGRES_SINGLE_TUPLE:
        case PGRES_COPY_IN:
            return owned;
        default:
            fail(result);
    }
}

void Postgres::script(const std::string& statements) {
    check(PQexec(m_connection.get(), statements.c_str()));
}

std::vector<Row> Postgres::query(const std::string& statement, std::span<const Cell> parameters) {
    std::vector<Row> rows;
    stream(statement, parameters, [&rows](const Row& row) {
        rows.push_back(row);
        return true;
    });
    return rows;
}

/// The name under which the server keeps a statement that comes a second time; null for others. Readers ask
/// for ranges of very different size, so each of theirs is planned for its own.
const std::string* Postgres::prepared(const std::string& statement, const std::vector<unsigned>& types) {
    if (!m_prepares) {
        return nullptr;
    }
    const auto [at, isNew] = m_statements.try_emplace({statement, types});
    Statement& known = at->second;
    if (isNew) {
        known.name = "s" + std::to_string(m_statements.size());
        return nullptr;
    }
    if (!known.isPrepared) {
        check(PQprepare(m_connection.get(), known.name.c_str(), statement.c_str(),
                        static_cast<int>(types.size()), types.data()));
        known.isPrepared = true;
    }
    return &known.name;
}

void Postgres::stream(const std::string& statement, std::span<const Cell> parameters,
                      const std::function<bool(const Row&)>& each) {
    pg_conn* const connection = m_connection.get();
    const Parameters given(parameters);
    const auto count = static_cast<int>(given.values.size());
    const std::string* const name = prepared(statement, given.types);
    const int isSent =
        name == nullptr
            ? PQsendQueryParams(connection, statement.c_str(), count, given.types.data(), given.values.data(),
                                given.lengths.data(), given.formats.data(), 0)
            : PQsendQueryPrepared(connection, name->c_str(), count, given.values.data(), given.lengths.data(),
                                  given.formats.data(), 0);
    if (isSent == 0) {
        fail(nullptr);
    }
    PQsetSingleRowMode(connection);
    // What is left of an answer is read and dropped, also when `each` throws.
    struct Drain {
        Postgres& self;
        pg_conn* connection = nullptr;
        bool isDone = false;
        ~Drain() {
            if (!isDone) {
                self.interrupt();
            }
            while (PGresult* const left = PQgetResult(connection)) {
                PQclear(left);
            }
        }
    } drain{*this, connection};
    while (PGresult* const next = PQgetResult(connection)) {
        drain.isDone = PQresultStatus(next) != PGRES_SINGLE_TUPLE;
        const Result result = check(next);
        for (int row = 0; row < PQntuples(next); ++row) {
            Row cells;
            const int columns = PQnfields(next);
            cells.reserve(static_cast<std::size_t>(columns));
            for (int column = 0; column < columns; ++column) {
                cells.push_back(cellOf(next, row, column));
            }
            if (!each(cells)) {
                return;
            }
        }
    }
}

void Postgres::copy(const std::string& statement, const std::string& data) {
    pg_conn* const connection = m_connection.get();
    check(PQexec(connection, statement.c_str()));
    for (std::size_t at = 0; at < data.size(); at += kCopyPart) {
        if (PQputCopyData(connection, data.data() + at,
                          static_cast<int>(std::min(kCopyPart, data.size() - at))) < 0) {
            fail(nullptr);
        }
    }
    if (PQputCopyEnd(connection, nullptr) < 0) {
        fail(nullptr);
    }
    const Result result(PQgetResult(connection), PQclear);
    while (PGresult* const left = PQgetResult(connection)) {
        PQclear(left);
    }
    if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
        fail(result.get());
    }
}

void Postgres::insertSamples(std::span<const SampleRow> samples) {
    for (std::size_t from = 0; from < samples.size();) {
        const std::int64_t day = dayOf(samples[from].receivedMs);
        CopyData data;
        std::size_t to = from;
        for (; to < samples.size() && dayOf(samples[to].receivedMs) == day; ++to) {
            data.row(samples[to]);
        }
        from = to;
        copy("COPY " + partitionName(day) +
                 " (report, vehicle, event, instance, measured, received, vals) FROM STDIN "
                 "(FORMAT binary)",
             data.finished());
    }
}

void Postgres::readPartitions() {
    m_partitions.clear();
    for (const Row& row : query("SELECT c.relname FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
                                "WHERE i.inhparent = 'samples'::regclass",
                                {})) {
        std::string name = text(row[0]).substr(8);
        if (name.size() == 8) {
            m_partitions.insert(dayOf(utcMs(name.insert(6, "-").insert(4, "-"))));
        }
    }
}

void Postgres::prepareSamples(std::int64_t receivedMs) {
    const std::int64_t today = dayOf(receivedMs);
    if (m_partitions.contains(today) && m_partitions.contains(today + 1)) {
        return;
    }
    Transaction transaction(*this);
    script("SELECT pg_advisory_xact_lock(8643)");
    readPartitions();
    for (const std::int64_t day : {today, today + 1}) {
        if (!m_partitions.contains(day)) {
            // ATTACH lets other instances read and write meanwhile, unlike CREATE TABLE ... PARTITION OF.
            const std::string name = partitionName(day);
            script("CREATE TABLE " + name +
                   " (LIKE samples INCLUDING DEFAULTS); ALTER TABLE samples ATTACH PARTITION " + name +
                   " FOR VALUES FROM (" + std::to_string(day * kDayMs) + ") TO (" +
                   std::to_string((day + 1) * kDayMs) + ")");
        }
    }
    transaction.commit();
    m_partitions.insert({today, today + 1});
}

bool Postgres::dropSamples(std::int64_t& receivedMs) {
    const std::int64_t limit = dayOf(receivedMs);
    receivedMs = limit * kDayMs;
    readPartitions();
    if (m_partitions.empty() || *m_partitions.begin() >= limit) {
        return false;
    }
    // While it waits for a long query, everybody else waits for it.
    Transaction transaction(*this);
    script("SET LOCAL lock_timeout = 500; DROP TABLE IF EXISTS " + partitionName(*m_partitions.begin()));
    transaction.commit();
    m_partitions.erase(m_partitions.begin());
    return true;
}

void Postgres::interrupt() {
    char error[256];
    PQcancel(m_cancel.get(), error, sizeof error);
}

void Postgres::limitTime(std::chrono::milliseconds limit) {
    if (limit != m_limit) {
        script("SET statement_timeout = " + std::to_string(limit.count()));
        m_limit = limit;
    }
}

}  // namespace vlmBackend::store
