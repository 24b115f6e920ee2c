#include "app/VlmLog.h"

namespace vlmProd {

namespace {

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

}  // namespace

std::string logSignature(std::string_view prettyFunction) {
    std::string text(prettyFunction);
    // What a template was instantiated with is the compiler's addition.
    if (const auto with = text.find(" [with "); with != std::string::npos) {
        text.erase(with);
    }
    replaceAll(text, "std::__cxx11::basic_string<char>", "string");
    replaceAll(text, "std::basic_string<char>", "string");
    replaceAll(text, "std::string", "string");
    replaceAll(text, "kyo::Json::Value", "Json::Value");
    replaceAll(text, "Json::Value", "kyo::Json::Value");
    replaceAll(text, " &", "&");
    replaceAll(text, " *", "*");
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
