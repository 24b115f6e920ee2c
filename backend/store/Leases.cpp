#include "backend/store/Leases.h"

namespace vlmBackend::store {

namespace {

const std::string kNow = "CAST(EXTRACT(EPOCH FROM clock_timestamp()) * 1000 AS BIGINT)";

std::vector<std::string> prefixes(const std::vector<Row>& rows) {
    std::vector<std::string> out;
    for (const Row& row : rows) {
        out.push_back(text(row[0]));
    }
    return out;
}

}  // namespace

bool renewInstance(Sql& sql, const std::string& instance, std::chrono::milliseconds lease) {
    const Cell parameters[] = {instance, static_cast<std::int64_t>(lease.count())};
    if (!sql.query("UPDATE instances SET alive_until = " + kNow + " + $2 WHERE name = $1 AND alive_until > " +
                       kNow + " RETURNING name",
                   parameters)
             .empty()) {
        return true;
    }
    sql.query("INSERT INTO instances (name, alive_until) VALUES ($1, " + kNow +
                  " + $2) ON CONFLICT (name) DO UPDATE SET alive_until = excluded.alive_until",
              parameters);
    constexpr std::int64_t kDayMs = 86'400'000;
    const Cell old[] = {kDayMs};
    sql.query("DELETE FROM instances WHERE alive_until < " + kNow + " - $1", old);
    return false;
}

void endInstance(Sql& sql, const std::string& instance) {
    const Cell parameters[] = {instance};
    sql.query("DELETE FROM instances WHERE name = $1", parameters);
}

bool claim(Sql& sql, const std::string& instance, const std::string& vehicle) {
    const Cell parameters[] = {instance, vehicle};
    return !sql.query(
                   "UPDATE vehicles SET owner = $1 WHERE name = $2 AND (owner = $1 OR NOT EXISTS (SELECT 1 "
                   "FROM "
                   "instances i WHERE i.name = vehicles.owner AND i.alive_until > " +
                       kNow + ")) RETURNING id",
                   parameters)
                .empty();
}

std::vector<std::string> takeOver(Sql& sql, const std::string& instance, std::int64_t most) {
    const Cell parameters[] = {instance, most};
    return prefixes(sql.query(
        "UPDATE vehicles SET owner = $1 WHERE id IN (SELECT v.id FROM vehicles v WHERE v.online = 1 AND NOT "
        "EXISTS (SELECT 1 FROM instances i WHERE i.name = v.owner AND i.alive_until > " +
            kNow + ") ORDER BY v.id LIMIT $2 FOR UPDATE SKIP LOCKED) RETURNING prefix",
        parameters));
}

std::vector<std::string> leasesOf(Sql& sql, const std::string& instance) {
    const Cell parameters[] = {instance};
    return prefixes(sql.query("SELECT prefix FROM vehicles WHERE owner = $1", parameters));
}

}  // namespace vlmBackend::store
