#pragma once
#include <cstddef>
#include <string_view>

namespace vlmProd {

/// Walks the members of an object in compact JSON text, in the order in which they stand, without reading
/// their values:
///
///     for (CompactObject object(text); object.next();) { use(object.name(), object.value()); }
///
/// Meant for what our own writer made. In other text the walk ends where it stops being an object, never
/// behind the text's end.
class CompactObject {
  public:
    explicit CompactObject(std::string_view text);

    /// Goes to the next member. False at the end.
    bool next();

    /// Of the member at hand, as it stands in the text: the name without its quotes, escapes kept.
    std::string_view name() const { return m_name; }
    std::string_view value() const { return m_value; }
    /// Name, colon and value.
    std::string_view whole() const { return m_whole; }

  private:
    std::string_view m_text;
    std::size_t m_at = 0;  ///< the comma or brace before the next member; beyond the text at the end
    std::string_view m_name;
    std::string_view m_value;
    std::string_view m_whole;
};

}  // namespace vlmProd
