#pragma once
/// JSON: the values of JsonCpp, a reader and a compact writer. Bad text never throws. A value may be used by
/// one thread at a time.
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

/// Reads one JSON document. Comments are accepted. Text after the document, and nesting deeper than the
/// library allows, are errors. A failure leaves the value null; getFormattedErrorMessages() gives the reason.
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
/// the shortest digits that read back as the same number. A number that JSON cannot express becomes null.
/// Returns false, with "null" appended, when the value is nested deeper than the reader allows.
bool appendCompact(std::string& out, const Value& value);

/// Returns the text that appendCompact() appends.
class FastWriter {
  public:
    std::string write(const Value& value) const;
};

}  // namespace kyo::Json
