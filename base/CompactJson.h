#pragma once
/// Compact JSON text, the form in which records, signal collections and reports travel and in which the log
/// shows them. kyo::Json::appendCompact() writes it:
///
///  - no white space, no line end; ASCII only. Other characters are \u escapes; a byte that is no UTF-8
///    becomes \ufffd, so a text may say less than the bytes that it was written from.
///  - The members of an object are in the order of their names' bytes, and each name is there once.
///  - Integers are plain digits. Real numbers have the shortest digits that read back as the same number, and
///    always a point or an exponent. A number that JSON cannot hold is null.
///
/// The text of an object can therefore be put together from its members' texts, and taken apart without
/// reading values. Reader and writer here do only that. They rely on the form; for untrusted text there is
/// kyo::Json::Reader.
#include <cstddef>
#include <string>
#include <string_view>

namespace vlmProd {

/// Walks the members of an object in their order:
///
///     for (ObjectReader object(text); object.next();) { use(object.name(), object.value()); }
///
/// In other text the walk ends where it stops being an object, never behind the text's end.
class ObjectReader {
  public:
    explicit ObjectReader(std::string_view text);

    /// Goes to the next member. False at the end.
    bool next();

    /// Of the current member, as it is in the text: the name without its quotes, escapes kept.
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

    /// Begins a member; its value's text is to be appended to the result. `name` as ObjectReader gives it.
    std::string& value(std::string_view name);
    /// Appends a whole member, as ObjectReader gives it.
    void member(std::string_view member);
    void end() { m_out.push_back('}'); }

  private:
    void separate();

    std::string& m_out;
};

}  // namespace vlmProd
