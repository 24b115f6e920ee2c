#pragma once
/// A JSON file under examination, and the findings about it.
#include <cstddef>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace vlmCheck {

enum class Kind { Collector, Application, Catalog, Manifest };

const char* nameOf(Kind kind);

/// Error: the system refuses the file, or what its author asks for cannot happen. Warning: it works, but
/// not as it reads.
enum class Severity { Error, Warning };

struct Finding {
    Severity severity;
    std::size_t line;  ///< from 1; 0 when it concerns the whole file
    std::string path;  ///< "$.COLLECT[2].serv"
    std::string reason;
    std::string suggestion;  ///< may be empty
};

/// One parsed file. Values stay valid as long as the document does.
struct Document {
    std::string name;  ///< as the user gave it
    std::string text;
    kyo::Json::Value root;

    /// The line on which a value of this document starts; 0 for the shared null value.
    std::size_t lineOf(const kyo::Json::Value& value) const;
};

/// Reads and parses a file. False with one finding that says why not.
bool readDocument(const std::string& path, Document& out, std::vector<Finding>& findings);

/// A value together with the way to it.
struct Place {
    const Document* document;
    const kyo::Json::Value* value;
    std::string path = "$";

    static Place rootOf(const Document& document) { return {&document, &document.root, "$"}; }
    bool has(const std::string& key) const;
    /// The member, or a place with the null value (on the parent's line) when there is none.
    Place member(const std::string& key) const;
    Place element(kyo::Json::ArrayIndex index) const;
    /// All elements; none when this is no array.
    std::vector<Place> elements() const;
    /// The value as the system reads texts: a number as its digits, an array or object as "".
    std::string text() const;
    std::size_t line() const { return m_line != 0 ? m_line : document->lineOf(*value); }

    std::size_t m_line = 0;  ///< set where the value itself has none
};

class Findings {
  public:
    void error(const Place& place, std::string reason, std::string suggestion = {});
    void warning(const Place& place, std::string reason, std::string suggestion = {});
    std::vector<Finding>& list() { return m_list; }

  private:
    std::vector<Finding> m_list;
};

/// The path of a member: "$.a", or "$[\"odd name\"]" where a dot would not do.
std::string memberPath(const std::string& parent, const std::string& key);

/// "a text", "an array", ...
const char* kindOf(const kyo::Json::Value& value);

/// The text in quotation marks, shortened when it is long.
std::string inQuotes(const std::string& text);

}  // namespace vlmCheck
