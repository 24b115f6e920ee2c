#pragma once
/// Checks of each kind of file that a schema cannot express.
#include <optional>
#include <string>

#include "tools/check/CatalogView.h"
#include "tools/check/Document.h"

namespace vlmCheck {

/// Checks that names refer to each other and, with a catalog, to what the vehicle offers.
void checkCollectorConfiguration(const Document& document, const CatalogView* catalog, Findings& findings);
void checkApplicationConfiguration(const Document& document, Findings& findings);
void checkCatalog(const Document& document, Findings& findings);
/// Includes the findings of the platform's own reader.
void checkManifest(const Document& document, Findings& findings);

/// Guesses the kind of a document from its top-level members; nothing when none or several kinds fit.
std::optional<Kind> guessKind(const Document& document);

/// The finding of a collector configuration that was checked without a catalog, and why.
Finding namesNotChecked(const std::string& problem);

/// All findings about one document, from schema and further checks, sorted by line.
std::vector<Finding> checkDocument(const Document& document, Kind kind, const CatalogView* catalog);

}  // namespace vlmCheck
