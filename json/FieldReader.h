#pragma once
/// Reading untrusted JSON: every value knows the way to it, so that a fault names its place.
///
///     FieldReader reader("collector configuration", Reading::Converting);
///     const Field clock = reader.root(document)["CLOCK"][0];
///     int duration = 60000;              // what an absent member leaves
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

/// How a value of another type than the one asked for is read.
enum class Reading {
    Exact,       ///< as a fault; of numbers, 5.0 counts as a whole one
    Converting,  ///< as the JSON library converts it (json/JsonFields.h); null also as an empty object or
                 ///< array
};

class FieldReader;

/// One value of a document and the way to it. Lives no longer than the document and the reader.
///
/// The reads answer false and add a fault to the reader where the value is not what is asked for; `out` then
/// keeps what it holds. An absent value is no fault and leaves `out` as it is, too.
class Field {
  public:
    const kyo::Json::Value& value() const { return *m_value; }
    /// "CLOCK[0].duration"; the document's name for its root.
    std::string place() const;
    bool isAbsent() const { return m_value == &kyo::Json::Value::nullSingleton(); }

    /// A member; absent where there is none, or where this is no object.
    Field operator[](const std::string& key) const;
    /// An element; absent where there is none, or where this is no array.
    Field operator[](kyo::Json::ArrayIndex index) const;

    bool object() const;
    /// The members of an object, none where this is none.
    std::vector<std::string> names() const;
    /// The elements of an array, none where this is none.
    std::vector<Field> elements(std::string_view expected = "an array") const;

    /// Any text.
    bool text(std::string& out) const;
    /// A text without U+0000, which would end it for every reader of C strings behind us.
    bool name(std::string& out) const;
    bool flag(bool& out) const;
    /// A whole number from `least` to `most`, or any number where `out` is a floating-point one.
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
    /// Adds "PLACE: REASON". Always false.
    bool fault(std::string_view reason) const;
    /// This must be an object without other members than the ones that were asked for.
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
    mutable std::vector<std::string> m_asked;  ///< members, in the order in which they were asked for
};

/// What is wrong with one document, or with several that are judged together.
class FieldReader {
  public:
    /// `document` names the root in faults ("the manifest").
    FieldReader(std::string document, Reading reading)
        : m_document(std::move(document)), m_reading(reading) {}
    FieldReader(const FieldReader&) = delete;
    FieldReader& operator=(const FieldReader&) = delete;

    /// `path` is the way to a value that is itself part of a document.
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

/// What a value is, for messages: "an array", "a text", "nothing" for one that is absent, ...
const char* kindOf(const kyo::Json::Value& value);

}  // namespace vlmProd
