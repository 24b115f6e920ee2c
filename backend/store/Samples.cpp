#include "backend/store/Samples.h"

#include <charconv>
#include <limits>
#include <string_view>

namespace vlmBackend::store {

namespace {

constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

std::optional<std::int64_t> wholeNumber(std::string_view text) {
    std::int64_t out = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(out) : std::nullopt;
}

}  // namespace

const char* rowExpression(Dialect dialect) {
    // Any order does that stays the same. Samples are not changed, so PostgreSQL does not move them.
    return dialect == Dialect::Sqlite ? "s.rowid" : "(s.tableoid::text || s.ctid::text) COLLATE \"C\"";
}

std::string Place::text() const {
    return std::to_string(measuredMs) + "_" + std::to_string(instance) + "_" + store::text(row);
}

std::optional<Place> Place::read(const std::string& text, Dialect dialect) {
    const auto first = text.find('_');
    const auto second = first == std::string::npos ? first : text.find('_', first + 1);
    if (second == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view all(text);
    const auto measured = wholeNumber(all.substr(0, first));
    const auto index = wholeNumber(all.substr(first + 1, second - first - 1));
    const auto number = wholeNumber(all.substr(second + 1));
    if (!measured || !index || (dialect == Dialect::Sqlite && !number)) {
        return std::nullopt;
    }
    return Place{*measured, *index,
                 dialect == Dialect::Sqlite ? Cell(*number) : Cell(text.substr(second + 1))};
}

Place Place::before(std::int64_t measuredMs, Dialect dialect) {
    return {measuredMs, kLeast, dialect == Dialect::Sqlite ? Cell(kLeast) : Cell(std::string())};
}

std::int64_t eventId(Sql& sql, const Event& event) {
    const Cell parameters[] = {std::string(event.service), std::string(event.resource)};
    const auto rows = sql.query("SELECT id FROM events WHERE service = $1 AND resource = $2", parameters);
    return rows.empty() ? 0 : integer(rows[0][0]);
}

}  // namespace vlmBackend::store
