#pragma once
/// The JSON Schemas of docs/schemas/, built into the program.
#include <memory>
#include <string>
#include <vector>

#include "tools/check/Document.h"

namespace vlmCheck {

/// The schema's text from docs/schemas/; generated at build time.
const char* schemaText(Kind kind);

class Schema {
  public:
    /// Returns the schema of a kind, parsed on first use. Any thread.
    static const Schema& of(Kind kind);

    explicit Schema(const std::string& text);
    ~Schema();

    /// Adds an error for everything that both the schema and the system refuse, a warning for each scalar of
    /// the wrong type that the system converts, and a warning for each member that the system ignores.
    void check(const Document& document, Findings& findings) const;

    /// The member names of the document's top level.
    std::vector<std::string> topLevelNames() const;

  private:
    struct Compiled;
    kyo::Json::Value m_document;
    std::unique_ptr<Compiled> m_compiled;
};

}  // namespace vlmCheck
