#pragma once
#include "backend/web/Readers.h"
#include "backend/web/Router.h"

namespace vlmBackend::web {

/// Adds what is read from the database. Exports have readers of their own. Both
/// outlive the router.
void addReadRoutes(Router& router, Readers& readers, Readers& exportReaders);

}  // namespace vlmBackend::web
