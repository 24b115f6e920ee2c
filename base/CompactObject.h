#pragma once
#include <cstddef>
#include <string_view>

namespace vlmProd {

/// Iterates over the members of an object in compact JSON text, in their order, without reading the values:
///
///     for (CompactObject object(text); object.next();) { use(object.name(), object.value()); }
///
/// Meant for text from our own writer. In other text it stops where the text is no object, and never reads
/// past the end.
class CompactObject {
  public:
    explicit CompactObject(std::string_view text);

    /// Moves to the next member. Returns false at the end.
    bool next();

    /// Name and value of the current member, as in the text; the name without quotes, with its escapes.
    std::string_view name() const { return m_name; }
    std::string_view value() const { return m_value; }
    /// Name, colon and value.
    std::string_view whole() const { return m_whole; }

  private:
    std::string_view m_text;
    std::size_t m_at = 0;  ///< the comma or brace before the next member; past the text at the end
    std::string_view m_name;
    std::string_view m_value;
    std::string_view m_whole;
};

}  // namespace vlmProd
