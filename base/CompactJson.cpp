#include "base/CompactJson.h"

namespace vlmProd {

namespace {

constexpr std::size_t kNone = std::string_view::npos;

/// Returns the position after the string whose opening quote is at `at`.
std::size_t behindString(std::string_view text, std::size_t at) {
    for (std::size_t end = text.find('"', at + 1); end != kNone; end = text.find('"', end + 1)) {
        std::size_t backslashes = 0;
        while (text[end - 1 - backslashes] == '\\') {  // stops at the opening quote
            ++backslashes;
        }
        if (backslashes % 2 == 0) {
            return end + 1;
        }
    }
    return kNone;
}

/// Returns the position after the array or object whose bracket is at `at`. Counts brackets without matching
/// their kinds, which is enough for our writer's text.
std::size_t behindNested(std::string_view text, std::size_t at) {
    for (int open = 0; at < text.size();) {
        switch (text[at]) {
            case '"':
                at = behindString(text, at);
                continue;
            case '{':
            case '[':
                ++open;
                break;
            case '}':
            case ']':
                if (--open == 0) {
                    return at + 1;
                }
                break;
            default:
                break;
        }
        ++at;
    }
    return kNone;
}

std::size_t behindValue(std::string_view text, std::size_t at) {
    if (at >= text.size()) {
        return kNone;
    }
    switch (text[at]) {
        case '"':
            return behindString(text, at);
        case '{':
        case '[':
            return behindNested(text, at);
        default:
            break;
    }
    const char* next = text.data() + at;
    const char* const end = text.data() + text.size();
    while (next != end && *next != ',' && *next != '}') {
        ++next;
    }
    return static_cast<std::size_t>(next - text.data());
}

}  // namespace

ObjectReader::ObjectReader(std::string_view text) : m_text(text) {
    if (text.empty() || text.front() != '{') {
        m_at = kNone;
    }
}

bool ObjectReader::next() {
    // Only the first character is a brace before a member.
    if (m_at >= m_text.size() || (m_at != 0 && m_text[m_at] != ',')) {
        return false;
    }
    const std::size_t begin = m_at + 1;
    m_at = kNone;
    if (begin >= m_text.size() || m_text[begin] != '"') {
        return false;
    }
    const std::size_t colon = behindString(m_text, begin);
    if (colon >= m_text.size() || m_text[colon] != ':') {
        return false;
    }
    const std::size_t end = behindValue(m_text, colon + 1);
    if (end >= m_text.size() || end == colon + 1) {  // at least a brace must follow
        return false;
    }
    m_name = m_text.substr(begin + 1, colon - begin - 2);
    m_value = m_text.substr(colon + 1, end - colon - 1);
    m_member = m_text.substr(begin, end - begin);
    m_at = end;
    return true;
}

std::string& ObjectWriter::value(std::string_view name) {
    separate();
    m_out.push_back('"');
    return m_out.append(name).append("\":");
}

void ObjectWriter::member(std::string_view member) {
    separate();
    m_out.append(member);
}

void ObjectWriter::separate() {
    if (m_out.back() != '{') {  // no value ends with it
        m_out.push_back(',');
    }
}

}  // namespace vlmProd
