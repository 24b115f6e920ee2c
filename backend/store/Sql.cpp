#include "backend/store/Sql.h"

#include <charconv>

namespace vlmBackend::store {

std::int64_t integer(const Cell& cell) {
    if (const auto* whole = std::get_if<std::int64_t>(&cell)) {
        return *whole;
    }
    return std::holds_alternative<double>(cell) ? static_cast<std::int64_t>(std::get<double>(cell)) : 0;
}

double real(const Cell& cell) {
    if (const auto* number = std::get_if<double>(&cell)) {
        return *number;
    }
    return static_cast<double>(integer(cell));
}

std::string text(const Cell& cell) {
    if (const auto* words = std::get_if<std::string>(&cell)) {
        return *words;
    }
    if (const auto* bytes = std::get_if<Bytes>(&cell)) {
        return bytes->data;
    }
    if (const auto* whole = std::get_if<std::int64_t>(&cell)) {
        return std::to_string(*whole);
    }
    if (const auto* number = std::get_if<double>(&cell)) {
        char shortest[32];
        const auto end = std::to_chars(shortest, shortest + sizeof shortest, *number).ptr;
        return {shortest, end};
    }
    return {};
}

std::string storableJson(std::string json) {
    const auto unit = [&json](std::size_t at) {
        unsigned value = 0xFFFFFFFFu;
        if (json.compare(at, 2, "\\u") == 0 && at + 6 <= json.size()) {
            std::from_chars(json.data() + at + 2, json.data() + at + 6, value, 16);
        }
        return value;
    };
    for (auto at = json.find('\\'); at != std::string::npos; at = json.find('\\', at)) {
        const unsigned value = unit(at);
        const bool isPair = value >= 0xD800 && value < 0xDC00 && at + 12 <= json.size() &&
                            unit(at + 6) >= 0xDC00 && unit(at + 6) < 0xE000;
        if (!isPair && (value == 0 || (value >= 0xD800 && value < 0xE000))) {
            json.replace(at, 6, "\\ufffd");
        }
        at += isPair ? 12 : value == 0xFFFFFFFFu ? 2 : 6;
    }
    return json;
}

Transaction::Transaction(Sql& sql) : m_sql(sql) {
    // SQLite takes the write lock at once: a transaction that begins by reading could not wait for it later.
    m_sql.script(sql.dialect() == Dialect::Sqlite ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    if (m_open) {
        try {
            m_sql.script("ROLLBACK");
        } catch (const DatabaseError&) {
            // The connection is lost, and the transaction with it.
        }
    }
}

void Transaction::commit() {
    m_sql.script("COMMIT");
    m_open = false;
}

}  // namespace vlmBackend::store
