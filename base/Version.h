#pragma once

namespace vlmProd {

/// The release that the program belongs to, such as "0.1.0". debian/changelog is the only place of the
/// number.
const char* version() noexcept;

/// Prints "<command> <version>" and returns true if "--version" is among the arguments: the program then ends
/// with status 0. Call it first in main, so that nothing else happens.
bool printVersion(int argc, const char* const* argv, const char* command);

}  // namespace vlmProd
