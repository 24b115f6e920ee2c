#include <algorithm>
#include <array>
#include <string_view>

#include "backend/store/Postgres.h"
#include "backend/store/Sqlite.h"

namespace vlmBackend::store {

std::unique_ptr<Sql> connect(const std::string& where, bool readOnly) {
    constexpr std::array<std::string_view, 6> kServer{
        "postgresql://", "postgres://", "host=", "dbname=", "service=", "user="};
    if (std::any_of(kServer.begin(), kServer.end(),
                    [&where](auto start) { return where.starts_with(start); })) {
        return std::make_unique<Postgres>(where, readOnly);
    }
    return std::make_unique<Sqlite>(where, readOnly);
}

}  // namespace vlmBackend::store
