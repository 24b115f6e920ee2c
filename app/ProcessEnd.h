#pragma once
namespace vlmProd {

/// Lets the process end after the exit handlers that are registered from now on (log, backend link), without
/// the destructors of static objects: threads that nobody stops may use those until the end. Call it first in
/// main.
void skipDestructorsAtExit();

}  // namespace vlmProd
