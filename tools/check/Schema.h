#pragma once
/// The JSON Schemas of docs/schemas/, built into the program.
#include <memory>
#include <string>
#include <vector>

#include "tools/check/Document.h"

namespace vlmCheck {

/// The schema's text as it stands in docs/schemas/; generated at build time.
const char* schemaText(Kind kind);

class Schema {
  public:
    /// The schema of that kind, parsed on first use.
    static const Schema& of(Kind kind);

    explicit Schema(const std::string& text);
    ~Schema();

    /// Adds an error for everything that the schema refuses and the system refuses as well, a warning for
    /// scalars of the wrong type that the system converts, and a warning for every member that it ignores.
    void check(const Document& document, Findings& findings) const;

    /// The member names of the document's top level.
    std::vector<std::string> topLevelNames() const;

  private:
    struct Compiled;
    kyo::Json::Value m_document;
    std::unique_ptr<Compiled> m_compiled;
};

}  // namespace vlmCheck
