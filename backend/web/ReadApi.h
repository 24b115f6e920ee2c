#pragma once
#include "backend/web/Readers.h"
#include "backend/web/Router.h"

namespace vlmBackend::web {

/// Adds what is read from the database. The readers outlive the router.
void addReadRoutes(Router& router, Readers& readers);

}  // namespace vlmBackend::web
