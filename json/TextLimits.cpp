#include "json/TextLimits.h"

namespace vlmProd {

namespace {

/// The offset of the last byte of the string or comment that begins at `at`; `at` itself if none does.
std::size_t endOfUnstructured(std::string_view text, std::size_t at) {
    const std::size_t size = text.size();
    if (text[at] == '"') {
        for (++at; at < size && text[at] != '"'; ++at) {
            at += text[at] == '\\' ? 1 : 0;
        }
        return at;
    }
    if (text.compare(at, 2, "/*") == 0) {
        at = text.find("*/", at + 2);
        return at == std::string_view::npos ? size : at + 1;
    }
    return text.compare(at, 2, "//") == 0 ? text.find_first_of("\r\n", at) : at;
}

}  // namespace

bool isWithin(const TextLimits& limits, std::string_view text, std::string& fault) {
    const auto exceeds = [&fault](const std::string& limit, std::size_t at) {
        fault = "at most " + limit + " expected, exceeded at offset " + std::to_string(at);
        return false;
    };
    if (text.size() > limits.bytes) {
        fault = "at most " + std::to_string(limits.bytes) + " bytes are expected, found " +
                std::to_string(text.size());
        return false;
    }
    std::size_t depth = 0;
    std::size_t values = 1;
    for (std::size_t at = 0; at < text.size(); ++at) {
        switch (text[at]) {
            case '"':
            case '/':
                at = endOfUnstructured(text, at);
                if (at >= text.size()) {
                    return true;
                }
                break;
            case '[':
            case '{':
                if (++depth > limits.depth) {
                    return exceeds(std::to_string(limits.depth) + " levels are", at);
                }
                [[fallthrough]];
            case ',':
                if (++values > limits.values) {
                    return exceeds(std::to_string(limits.values) + " values are", at);
                }
                break;
            case ']':
            case '}':
                depth -= depth > 0 ? 1 : 0;
                break;
            default:
                break;
        }
    }
    return true;
}

}  // namespace vlmProd
