#include <algorithm>
#include <array>
#include <string_view>

#include "backend/store/Postgres.h"
#include "backend/store/Sqlite.h"

namespace vlmBackend::store {

bool isServer(const std::string& where) {
    constexpr std::array<std::string_view, 6> kStarts{
        "postgresql://", "postgres://", "host=", "dbname=", "service=", "user="};
    return std::any_of(kStarts.begin(), kStarts.end(),
                       [&where](auto start) { return where.starts_with(start); });
}

std::unique_ptr<Sql> connect(const std::string& where, bool readOnly) {
    if (isServer(where)) {
        return std::make_unique<Postgres>(where, readOnly);
    }
    return std::make_unique<Sqlite>(where, readOnly);
}

}  // namespace vlmBackend::store
