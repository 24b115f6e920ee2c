#pragma once
/// Which of several instances looks after a vehicle: it opens the channel and answers configuration requests.
/// A lease lasts as long as its instance renews itself, by the database's clock. PostgreSQL only; all
/// functions throw DatabaseError and are called inside a transaction.
#include <chrono>
#include <string>
#include <vector>

#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// False when the instance is new or was too late: its vehicles may be others' by now.
bool renewInstance(Sql& sql, const std::string& instance, std::chrono::milliseconds lease);
/// Its vehicles are free at once.
void endInstance(Sql& sql, const std::string& instance);
/// Takes the vehicle unless another instance that is alive has it. Whether this one has it now.
bool claim(Sql& sql, const std::string& instance, const std::string& vehicle);
/// Takes some of the vehicles that are online and that no instance alive has. Their prefixes.
std::vector<std::string> takeOver(Sql& sql, const std::string& instance, std::int64_t most);
/// Prefixes of the vehicles that the instance has.
std::vector<std::string> leasesOf(Sql& sql, const std::string& instance);

}  // namespace vlmBackend::store
