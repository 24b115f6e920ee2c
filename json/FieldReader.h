#pragma once
/// A reader of untrusted JSON. Every value knows its path, so that a fault names its place.
///
///     FieldReader reader("collector configuration", Reading::Converting);
///     const Field clock = reader.root(document)["CLOCK"][0];
///     int duration = 60000;              // stays if the member is absent
///     clock["duration"].number(duration);
///     for (const std::string& fault : reader.faults()) ...
///         // "CLOCK[0].duration: a number from -2147483648 to 2147483647 is expected, found a text ("1
///         min")"
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kyo/Json.h"

namespace vlmProd {

/// How a value of another type than the requested one is read.
enum class Reading {
    Exact,       ///< as a fault; 5.0 is a whole number
    Converting,  ///< as the JSON library converts it (json/JsonFields.h); null also as an empty object or
                 ///< array
};

class FieldReader;

/// One value of a document and its path. The document and the reader must outlive it.
///
/// A read of another value than the requested one returns false, adds a fault to the reader and keeps `out`.
/// A read of an absent value returns true and keeps `out`.
class Field {
  public:
    const kyo::Json::Value& value() const { return *m_value; }
    /// Returns "CLOCK[0].duration"; the document's name for its root.
    std::string place() const;
    bool isAbsent() const { return m_value == &kyo::Json::Value::nullSingleton(); }

    /// Returns a member; an absent value if there is none, or if this is no object.
    Field operator[](const std::string& key) const;
    /// Returns an element; an absent value if there is none, or if this is no array.
    Field operator[](kyo::Json::ArrayIndex index) const;

    bool object() const;
    /// Returns the names of an object's members; none if this is no object.
    std::vector<std::string> names() const;
    /// Returns the elements of an array; none if this is no array.
    std::vector<Field> elements(std::string_view expected = "an array") const;

    /// Reads any text.
    bool text(std::string& out) const;
    /// Reads a text without U+0000, which would end it for readers of C strings.
    bool name(std::string& out) const;
    bool flag(bool& out) const;
    /// Reads a whole number from `least` to `most`; any number if `out` is a floating-point one.
    template <typename Number>
    bool number(Number& out, std::type_identity_t<Number> least = std::numeric_limits<Number>::lowest(),
                std::type_identity_t<Number> most = std::numeric_limits<Number>::max()) const {
        if constexpr (std::floating_point<Number>) {
            return real(out);
        } else {
            constexpr auto cap = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
            std::int64_t whole = out;
            const bool good = integer(whole, least, std::in_range<std::int64_t>(most) ? most : cap);
            out = static_cast<Number>(whole);
            return good;
        }
    }

    /// Adds the fault "PLACE: EXPECTED is expected" unless `good`, which it returns.
    bool expect(bool good, std::string_view expected) const;
    /// Adds the fault "PLACE: REASON". Returns false.
    bool fault(std::string_view reason) const;
    /// Adds a fault for each member of this object that was not requested.
    void refuseOthers() const;

  private:
    friend FieldReader;
    Field(FieldReader& reader, const kyo::Json::Value& value, std::string path)
        : m_reader(&reader), m_value(&value), m_path(std::move(path)) {}

    bool isLeftOut() const;
    bool mismatch(std::string_view expected, bool showValue) const;
    bool real(double& out) const;
    bool integer(std::int64_t& out, std::int64_t least, std::int64_t most) const;

    FieldReader* m_reader;
    const kyo::Json::Value* m_value;
    std::string m_path;
    mutable std::vector<std::string> m_asked;  ///< requested members, in this order
};

/// Collects the faults of one document, or of several that are read together.
class FieldReader {
  public:
    /// `document` names the root in faults ("the manifest").
    FieldReader(std::string document, Reading reading)
        : m_document(std::move(document)), m_reading(reading) {}
    FieldReader(const FieldReader&) = delete;
    FieldReader& operator=(const FieldReader&) = delete;

    /// `path` is the path of a value that is itself part of a document.
    Field root(const kyo::Json::Value& value, std::string path = {}) {
        return {*this, value, std::move(path)};
    }

    bool good() const { return m_faults.empty(); }
    /// In the order of reading.
    const std::vector<std::string>& faults() const { return m_faults; }

  private:
    friend Field;
    const std::string m_document;
    const Reading m_reading;
    std::vector<std::string> m_faults;
};

/// Returns the kind of a value for messages: "an array", "a text", "nothing" for an absent one, ...
const char* kindOf(const kyo::Json::Value& value);

}  // namespace vlmProd
