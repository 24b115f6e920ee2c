#include "kyo/Json.h"

#include <json/reader.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string_view>

namespace kyo::Json {

namespace {

/// Also the reader's limit (its "stackLimit").
constexpr int kDeepestNesting = 1000;

void appendEscape(std::string& out, unsigned unit) {
    constexpr char kDigits[] = "0123456789abcdef";
    const char text[] = {'\\',
                         'u',
                         kDigits[(unit >> 12) & 15],
                         kDigits[(unit >> 8) & 15],
                         kDigits[(unit >> 4) & 15],
                         kDigits[unit & 15]};
    out.append(text, sizeof text);
}

/// Reads one UTF-8 character at `at` and advances `at`. Returns U+FFFD for invalid bytes.
unsigned decodeUtf8(const char*& at, const char* end) {
    constexpr unsigned kReplacement = 0xFFFD;
    const auto first = static_cast<unsigned char>(*at++);
    int more = 0;
    unsigned code = 0;
    unsigned least = 0;
    if (first >= 0xC2 && first < 0xE0) {
        more = 1, code = first & 0x1Fu, least = 0x80;
    } else if (first >= 0xE0 && first < 0xF0) {
        more = 2, code = first & 0x0Fu, least = 0x800;
    } else if (first >= 0xF0 && first < 0xF5) {
        more = 3, code = first & 0x07u, least = 0x10000;
    } else {
        return kReplacement;
    }
    const char* next = at;
    for (int i = 0; i < more; ++i, ++next) {
        if (next == end || (static_cast<unsigned char>(*next) & 0xC0u) != 0x80u) {
            return kReplacement;
        }
        code = code << 6 | (static_cast<unsigned char>(*next) & 0x3Fu);
    }
    if (code < least || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return kReplacement;
    }
    at = next;
    return code;
}

bool isPlain(char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

void appendQuoted(std::string& out, std::string_view text) {
    out.push_back('"');
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const char* run = at;
        while (run != end && isPlain(*run)) {
            ++run;
        }
        out.append(at, run);
        at = run;
        if (at == end) {
            break;
        }
        const char c = *at;
        switch (c) {
            case '"':
                out.append("\\\"");
                break;
            case '\\':
                out.append("\\\\");
                break;
            case '\b':
                out.append("\\b");
                break;
            case '\f':
                out.append("\\f");
                break;
            case '\n':
                out.append("\\n");
                break;
            case '\r':
                out.append("\\r");
                break;
            case '\t':
                out.append("\\t");
                break;
            default: {
                if (static_cast<unsigned char>(c) < 0x80) {
                    appendEscape(out, static_cast<unsigned char>(c));
                    break;
                }
                const unsigned code = decodeUtf8(at, end);
                if (code < 0x10000) {
                    appendEscape(out, code);
                } else {
                    appendEscape(out, 0xD800 + ((code - 0x10000) >> 10));
                    appendEscape(out, 0xDC00 + ((code - 0x10000) & 0x3FF));
                }
                continue;  // decodeUtf8() has advanced `at`
            }
        }
        ++at;
    }
    out.push_back('"');
}

template <typename Number>
void appendNumber(std::string& out, Number number) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append(digits, end);
}

void appendReal(std::string& out, double number) {
    if (!std::isfinite(number)) {
        out.append("null");
        return;
    }
    const std::size_t before = out.size();
    appendNumber(out, number);
    if (std::string_view(out).substr(before).find_first_of(".e") == std::string_view::npos) {
        out.append(".0");  // so that it reads back as a real number
    }
}

bool appendValue(std::string& out, const Value& value, int depth);

bool appendArray(std::string& out, const Value& array, int depth) {
    out.push_back('[');
    bool first = true;
    for (const Value& element : array) {
        if (!first) {
            out.push_back(',');
        }
        first = false;
        if (!appendValue(out, element, depth)) {
            return false;
        }
    }
    out.push_back(']');
    return true;
}

bool appendObject(std::string& out, const Value& object, int depth) {
    out.push_back('{');
    bool first = true;
    for (auto member = object.begin(); member != object.end(); ++member) {
        if (!first) {
            out.push_back(',');
        }
        first = false;
        const char* end = nullptr;
        const char* const name = member.memberName(&end);
        appendQuoted(out, std::string_view(name, static_cast<std::size_t>(end - name)));
        out.push_back(':');
        if (!appendValue(out, *member, depth)) {
            return false;
        }
    }
    out.push_back('}');
    return true;
}

bool appendValue(std::string& out, const Value& value, int depth) {
    if (depth > kDeepestNesting) {
        return false;
    }
    switch (value.type()) {
        case nullValue:
            out.append("null");
            break;
        case intValue:
            appendNumber(out, value.asLargestInt());
            break;
        case uintValue:
            appendNumber(out, value.asLargestUInt());
            break;
        case realValue:
            appendReal(out, value.asDouble());
            break;
        case stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            const bool any = value.getString(&begin, &end);
            appendQuoted(out, any ? std::string_view(begin, static_cast<std::size_t>(end - begin)) : "");
            break;
        }
        case booleanValue:
            out.append(value.asBool() ? "true" : "false");
            break;
        case arrayValue:
            return appendArray(out, value, depth + 1);
        case objectValue:
            return appendObject(out, value, depth + 1);
    }
    return true;
}

}  // namespace

bool Reader::parse(const std::string& text, Value& root, bool collectComments) {
    ::Json::CharReaderBuilder builder;
    builder["collectComments"] = collectComments;
    builder["failIfExtra"] = true;
    m_errors.clear();
    bool good = false;
    try {
        const std::unique_ptr<::Json::CharReader> reader(builder.newCharReader());
        good = reader->parse(text.data(), text.data() + text.size(), &root, &m_errors);
    } catch (const ::Json::Exception& error) {  // nesting beyond the library's limit
        m_errors = error.what();
    }
    if (!good) {
        root = Value();
        if (m_errors.empty()) {
            m_errors = "not a JSON document";
        }
    } else {
        m_errors.clear();
    }
    return good;
}

bool Reader::parse(std::istream& stream, Value& root, bool collectComments) {
    // istreambuf_iterator would throw if the stream cannot be read (a folder).
    std::ostringstream text;
    if (stream.peek() != std::istream::traits_type::eof()) {
        text << stream.rdbuf();
    }
    if (stream.bad() || text.bad()) {
        root = Value();
        m_errors = "it cannot be read";
        return false;
    }
    return parse(text.str(), root, collectComments);
}

bool appendCompact(std::string& out, const Value& value) {
    const std::size_t before = out.size();
    if (appendValue(out, value, 1)) {
        return true;
    }
    out.resize(before);
    out.append("null");
    return false;
}

std::string FastWriter::write(const Value& value) const {
    std::string text;
    appendCompact(text, value);
    return text;
}

}  // namespace kyo::Json
