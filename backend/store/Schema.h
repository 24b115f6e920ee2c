#pragma once
#include <string>
#include <vector>

#include "backend/store/Events.h"
#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// The number of the newest migration.
int newestVersion();

/// Brings the database to the newest version and writes one view per event, in one transaction. Throws
/// DatabaseError, also for a database that a newer program has written. `version`: an older one, for tests.
void migrate(Sql& sql, int version = newestVersion());

/// The statement that makes an event's view: one column per field, its unit and meaning as a comment (SQLite:
/// in the text of the view, PostgreSQL: on the column).
std::vector<std::string> viewStatements(Dialect dialect);

/// A field of "samples s" as the views have it.
std::string valueOf(const EventField& field, Dialect dialect);

}  // namespace vlmBackend::store
