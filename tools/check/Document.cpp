#include "tools/check/Document.h"

#include <json/reader.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

namespace vlmCheck {

using kyo::Json::Value;

namespace {

/// The system accepts a repeated member and uses the last value, which is rarely what the author meant.
void reportRepeatedMembers(const Document& document, std::vector<Finding>& findings) {
    ::Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["rejectDupKeys"] = true;
    Value ignored;
    std::string errors;
    const std::unique_ptr<::Json::CharReader> reader(builder.newCharReader());
    const char* begin = document.text.data();
    if (reader->parse(begin, begin + document.text.size(), &ignored, &errors)) {
        return;
    }
    // "* Line 4, Column 9\n  Duplicate key: 'name'\n"
    std::istringstream lines(errors);
    std::string line;
    std::size_t number = 0;
    while (std::getline(lines, line)) {
        if (line.rfind("* Line ", 0) == 0) {
            number = std::strtoul(line.c_str() + 7, nullptr, 10);
        } else if (const auto at = line.find("Duplicate key: "); at != std::string::npos) {
            findings.push_back(
                {Severity::Error, number, "$",
                 "member " + line.substr(at + 15) + " is given twice; only the last one counts",
                 "remove one of them"});
        }
    }
}

}  // namespace

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::Collector:
            return "collector configuration";
        case Kind::Application:
            return "application configuration";
        case Kind::Catalog:
            return "signal catalog";
        case Kind::Manifest:
            return "machine manifest";
    }
    return "document";
}

kyo::Json::Value Finding::toJson() const {
    kyo::Json::Value out(kyo::Json::objectValue);
    out["severity"] = severity == Severity::Error ? "error" : "warning";
    out["line"] = static_cast<kyo::Json::UInt64>(line);
    out["path"] = path;
    out["reason"] = reason;
    out["suggestion"] = suggestion;
    return out;
}

std::size_t Document::lineOf(const Value& value) const {
    const auto offset = value.getOffsetStart();
    if (&value == &Value::nullSingleton() || offset < 0 || static_cast<std::size_t>(offset) > text.size()) {
        return 0;
    }
    return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
}

bool readDocument(const std::string& path, Document& out, std::vector<Finding>& findings) {
    out.name = path;
    std::ifstream file(path, std::ios::binary);
    if (file) {
        out.text.assign(std::istreambuf_iterator<char>(file), {});
    }
    if (!file || file.bad()) {
        findings.push_back(
            {Severity::Error, 0, "", std::string("cannot be read: ") + std::strerror(errno), ""});
        return false;
    }
    return parseDocument(out, findings);
}

bool parseDocument(Document& out, std::vector<Finding>& findings) {
    kyo::Json::Reader reader;
    if (!reader.parse(out.text, out.root, false)) {
        // The library's text has several lines ("* Line 3, Column 5\n  Missing ',' ..."); use the first
        // error.
        const std::string& message = reader.getFormattedErrorMessages();
        std::size_t line = 0;
        if (const auto at = message.find("Line "); at != std::string::npos) {
            line = std::strtoul(message.c_str() + at + 5, nullptr, 10);
        }
        std::istringstream lines(message);
        std::string first;
        std::string second;
        std::getline(lines, first);
        std::getline(lines, second);
        const auto column = first.find("Column");
        std::string reason = "is not JSON";
        const auto text = second.find_first_not_of(' ');
        if (text != std::string::npos) {
            reason += ": " + second.substr(text);
        }
        if (column != std::string::npos) {
            reason += " (column" + first.substr(column + 6) + ")";
        }
        findings.push_back({Severity::Error, line, "$", reason, ""});
        return false;
    }
    reportRepeatedMembers(out, findings);
    return true;
}

bool Place::has(const std::string& key) const {
    return value->isObject() && value->isMember(key);
}

Place Place::member(const std::string& key) const {
    const Value* found = value->isObject() ? value->find(key.data(), key.data() + key.size()) : nullptr;
    if (found == nullptr) {
        return {document, &Value::nullSingleton(), memberPath(path, key), line()};
    }
    return {document, found, memberPath(path, key)};
}

Place Place::element(kyo::Json::ArrayIndex index) const {
    const std::string where = path + "[" + std::to_string(index) + "]";
    if (!value->isArray() || !value->isValidIndex(index)) {
        return {document, &Value::nullSingleton(), where, line()};
    }
    return {document, &(*value)[index], where};
}

std::vector<Place> Place::elements() const {
    std::vector<Place> result;
    if (value->isArray()) {
        for (kyo::Json::ArrayIndex i = 0; i < value->size(); ++i) {
            result.push_back(element(i));
        }
    }
    return result;
}

std::string Place::text() const {
    return value->isArray() || value->isObject() ? std::string() : value->asString();
}

void Findings::error(const Place& place, std::string reason, std::string suggestion) {
    m_list.push_back({Severity::Error, place.line(), place.path, std::move(reason), std::move(suggestion)});
}

void Findings::warning(const Place& place, std::string reason, std::string suggestion) {
    m_list.push_back({Severity::Warning, place.line(), place.path, std::move(reason), std::move(suggestion)});
}

std::string memberPath(const std::string& parent, const std::string& key) {
    const bool plain = !key.empty() && std::all_of(key.begin(), key.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-';
    });
    return plain ? parent + "." + key : parent + "[" + inQuotes(key) + "]";
}

std::string inQuotes(const std::string& text) {
    constexpr std::size_t longest = 80;
    std::string result = "\"";
    for (const char c : text.substr(0, longest)) {
        if (static_cast<unsigned char>(c) < 0x20) {
            result += '?';
        } else {
            result += c;
        }
    }
    return result + (text.size() > longest ? "...\"" : "\"");
}

}  // namespace vlmCheck
