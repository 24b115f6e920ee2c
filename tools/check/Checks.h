#pragma once
/// What a schema cannot say about each kind of file.
#include <optional>
#include <string>

#include "tools/check/CatalogView.h"
#include "tools/check/Document.h"

namespace vlmCheck {

/// Names against each other and, with a catalog, against what the vehicle has.
void checkCollectorConfiguration(const Document& document, const CatalogView* catalog, Findings& findings);
void checkApplicationConfiguration(const Document& document, Findings& findings);
void checkCatalog(const Document& document, Findings& findings);
/// Includes what the platform's own reader says.
void checkManifest(const Document& document, Findings& findings);

/// The kind that a document looks like, by its top-level members; nothing when it looks like none or
/// like several.
std::optional<Kind> guessKind(const Document& document);

/// Schema and further checks of one document, in the order of lines.
std::vector<Finding> checkDocument(const Document& document, Kind kind, const CatalogView* catalog);

}  // namespace vlmCheck
