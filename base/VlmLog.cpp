#include "base/VlmLog.h"

#include <cctype>

namespace vlmProd {

namespace {

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

/// "T &, U &name" becomes "T&, U& name".
void moveBlankBehind(std::string& text, char sign) {
    for (auto at = text.find(sign); at != std::string::npos; at = text.find(sign, at + 1)) {
        if (at == 0 || text[at - 1] != ' ') {
            continue;
        }
        text.erase(--at, 1);
        const char next = at + 1 < text.size() ? text[at + 1] : '\0';
        if (std::isalnum(static_cast<unsigned char>(next)) != 0 || next == '_') {
            text.insert(at + 1, 1, ' ');
        }
    }
}

}  // namespace

std::string logSignature(std::string_view prettyFunction) {
    std::string text(prettyFunction);
    // The compiler appends the template arguments.
    if (const auto with = text.find(" [with "); with != std::string::npos) {
        text.erase(with);
    }
    replaceAll(text, "std::__cxx11::basic_string<char>", "string");
    replaceAll(text, "std::basic_string<char>", "string");
    replaceAll(text, "std::string", "string");
    replaceAll(text, "string >", "string>");
    replaceAll(text, "kyo::Json::Value", "Json::Value");
    replaceAll(text, "Json::Value", "kyo::Json::Value");
    moveBlankBehind(text, '&');
    moveBlankBehind(text, '*');
    return text;
}

const std::string& logPrefix(std::string_view prettyFunction) {
    return *new std::string(logSignature(prettyFunction) + " ");
}

const std::string& logPrefix(std::string_view prettyFunction, int line) {
    return *new std::string(logSignature(prettyFunction) + ":" + std::to_string(line) + " ");
}

const std::string& tracePrefix(std::string_view prettyFunction, int line) {
    return *new std::string(logSignature(prettyFunction) + ":" + std::to_string(line));
}

}  // namespace vlmProd
