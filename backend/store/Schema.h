#pragma once
#include <string>
#include <vector>

#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// Brings the database to the newest version and writes one view per event, in one transaction. Throws
/// DatabaseError, also for a database that a newer program has written.
void migrate(Sql& sql);

/// The number of the newest migration.
int newestVersion();

/// The statement that makes an event's view: one column per field, its unit and meaning as a comment (SQLite:
/// in the text of the view, PostgreSQL: on the column).
std::vector<std::string> viewStatements(Dialect dialect);

}  // namespace vlmBackend::store
