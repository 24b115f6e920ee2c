#pragma once
/// Compact JSON text, the form of records, signal collections and reports, also in the log.
/// kyo::Json::appendCompact() writes it:
///
///  - no white space, no line end; ASCII only. Other characters are \u escapes; a byte that is no UTF-8
///    becomes \ufffd, so the original bytes cannot always be read back.
///  - The members of an object are in the order of their names' bytes, and each name is there once.
///  - Integers are plain digits. Real numbers have the shortest digits that read back as the same number, and
///    always a point or an exponent. A number that JSON cannot hold is null.
///
/// The text of an object can therefore be composed of its members' texts, and split without parsing values.
/// Reader and writer here do only that. They rely on the form; kyo::Json::Reader reads untrusted text.
#include <cstddef>
#include <string>
#include <string_view>

namespace vlmProd {

/// Walks the members of an object in their order:
///
///     for (ObjectReader object(text); object.next();) { use(object.name(), object.value()); }
///
/// In a text of another form the walk ends at the first difference.
class ObjectReader {
  public:
    explicit ObjectReader(std::string_view text);

    /// Goes to the next member. Returns false at the end.
    bool next();

    /// Name and value of the current member as in the text; the name without its quotes, but with escapes.
    std::string_view name() const { return m_name; }
    std::string_view value() const { return m_value; }
    /// Name, colon and value.
    std::string_view member() const { return m_member; }

  private:
    std::string_view m_text;
    std::size_t m_at = 0;  ///< the comma or brace before the next member; beyond the text at the end
    std::string_view m_name;
    std::string_view m_value;
    std::string_view m_member;
};

/// Appends an object to a text, member by member. The caller keeps the order of the names.
class ObjectWriter {
  public:
    explicit ObjectWriter(std::string& out) : m_out(out) { m_out.push_back('{'); }

    /// Begins a member. The caller appends the value's text to the result. `name` is as ObjectReader returns
    /// it.
    std::string& value(std::string_view name);
    /// Appends a whole member, as ObjectReader returns it.
    void member(std::string_view member);
    void end() { m_out.push_back('}'); }

  private:
    void separate();

    std::string& m_out;
};

}  // namespace vlmProd
