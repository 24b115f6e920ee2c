#pragma once
/// Which of several instances serves a vehicle: it opens the channel and answers configuration requests. A
/// lease lasts as long as its instance renews itself, by the database's clock. PostgreSQL only; all functions
/// throw DatabaseError and are called inside a transaction.
#include <chrono>
#include <string>
#include <vector>

#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// Returns false when the instance is new or its lease has expired; others may have its vehicles.
bool renewInstance(Sql& sql, const std::string& instance, std::chrono::milliseconds lease);
/// Frees the instance's vehicles at once.
void endInstance(Sql& sql, const std::string& instance);
/// Takes the vehicle unless another instance that is alive has it. Returns true if this one has it now.
bool claim(Sql& sql, const std::string& instance, const std::string& vehicle);
/// Takes at most `most` vehicles that are online and that no instance alive has. Returns their prefixes.
std::vector<std::string> takeOver(Sql& sql, const std::string& instance, std::int64_t most);
/// Returns the prefixes of the vehicles that the instance has.
std::vector<std::string> leasesOf(Sql& sql, const std::string& instance);

}  // namespace vlmBackend::store
