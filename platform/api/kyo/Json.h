#pragma once
/// JSON: the values of JsonCpp, a reader and a compact writer. Nothing here throws on bad text. Values belong
/// to one thread at a time.
#include <json/json.h>

#include <istream>
#include <string>

namespace kyo::Json {

using ::Json::ArrayIndex;
using ::Json::arrayValue;
using ::Json::booleanValue;
using ::Json::Int64;
using ::Json::intValue;
using ::Json::nullValue;
using ::Json::objectValue;
using ::Json::realValue;
using ::Json::StaticString;
using ::Json::stringValue;
using ::Json::UInt;
using ::Json::UInt64;
using ::Json::uintValue;
using ::Json::Value;
using ::Json::ValueType;

/// Reads one JSON document. Comments are accepted; text behind the document is an error, as is nesting
/// deeper than the library allows. On failure the value is left null and the reason can be asked for.
class Reader {
  public:
    bool parse(const std::string& text, Value& root, bool collectComments = true);
    bool parse(std::istream& stream, Value& root, bool collectComments = true);
    /// Line, column and reason of the last failure; empty after a success.
    const std::string& getFormattedErrorMessages() const { return m_errors; }

  private:
    std::string m_errors;
};

/// Appends compact JSON text: no white space, no line end, ASCII only (other characters as \\u escapes), and
/// the shortest digits that read back as the same number. A number that JSON cannot hold becomes null.
/// False, with "null" appended, when the value is nested deeper than the reader would allow.
bool appendCompact(std::string& out, const Value& value);

/// Writes the text of appendCompact().
class FastWriter {
  public:
    std::string write(const Value& value) const;
};

}  // namespace kyo::Json
