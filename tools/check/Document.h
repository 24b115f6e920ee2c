#pragma once
/// A JSON file to be checked, and the findings about it.
#include <cstddef>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace vlmCheck {

enum class Kind { Collector, Application, Catalog, Manifest };

const char* nameOf(Kind kind);

/// Error: the system refuses the file, or cannot do what the file demands. Warning: it works, but differently
/// from what the file suggests.
enum class Severity { Error, Warning };

struct Finding {
    Severity severity;
    std::size_t line;  ///< from 1; 0 for the whole file
    std::string path;  ///< "$.COLLECT[2].serv"
    std::string reason;
    std::string suggestion;  ///< may be empty

    /// {"severity": "error" or "warning", "line", "path", "reason", "suggestion"}
    kyo::Json::Value toJson() const;
};

/// One parsed file. It owns the values.
struct Document {
    std::string name;  ///< as given by the user
    std::string text;
    kyo::Json::Value root;

    /// The line on which a value of this document starts; 0 for the shared null value.
    std::size_t lineOf(const kyo::Json::Value& value) const;
};

/// Reads and parses a file. Returns false with one finding that gives the reason.
bool readDocument(const std::string& path, Document& out, std::vector<Finding>& findings);
/// The same for out.text.
bool parseDocument(Document& out, std::vector<Finding>& findings);

/// A value and its path.
struct Place {
    const Document* document;
    const kyo::Json::Value* value;
    std::string path = "$";

    static Place rootOf(const Document& document) { return {&document, &document.root, "$"}; }
    bool has(const std::string& key) const;
    /// The member; for a missing one a place with the null value on the parent's line.
    Place member(const std::string& key) const;
    Place element(kyo::Json::ArrayIndex index) const;
    /// All elements; none unless this is an array.
    std::vector<Place> elements() const;
    /// The value as the system reads texts: a number as its digits, an array or object as "".
    std::string text() const;
    std::size_t line() const { return m_line != 0 ? m_line : document->lineOf(*value); }

    std::size_t m_line = 0;  ///< used when the value itself has no line
};

class Findings {
  public:
    void error(const Place& place, std::string reason, std::string suggestion = {});
    void warning(const Place& place, std::string reason, std::string suggestion = {});
    std::vector<Finding>& list() { return m_list; }

  private:
    std::vector<Finding> m_list;
};

/// The path of a member: "$.a", or "$[\"odd name\"]" if the name needs quotes.
std::string memberPath(const std::string& parent, const std::string& key);

/// The text in quotation marks; shortened if long.
std::string inQuotes(const std::string& text);

}  // namespace vlmCheck
