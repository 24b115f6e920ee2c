#include "tools/check/Schema.h"

#include <array>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <stdexcept>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>
#pragma GCC diagnostic pop

#include "json/FieldReader.h"
#include "json/JsonFields.h"
#include "tools/check/Suggest.h"

namespace vlmCheck {

using kyo::Json::Value;
using vlmProd::kindOf;
using vlmProd::member;

struct Schema::Compiled {
    valijson::Schema schema;
};

namespace {

/// The part of a schema about one member; null without one.
const Value& memberSchema(const Value& schema, const std::string& key) {
    const Value& named = member(member(schema, "properties"), key);
    if (!named.isNull()) {
        return named;
    }
    const Value& patterns = member(schema, "patternProperties");
    for (const auto& pattern : patterns.getMemberNames()) {
        if (std::regex_search(key, std::regex(pattern))) {
            return patterns[pattern];
        }
    }
    const Value& others = member(schema, "additionalProperties");
    return others.isObject() ? others : Value::nullSingleton();
}

const Value& elementSchema(const Value& schema, kyo::Json::ArrayIndex index) {
    const Value& items = member(schema, "items");
    if (items.isArray()) {
        return index < items.size() ? items[index] : member(schema, "additionalItems");
    }
    return items;
}

std::string number(const Value& value) {
    return value.asString();
}

std::string range(const Value& schema) {
    const Value& minimum = member(schema, "minimum");
    const Value& maximum = member(schema, "maximum");
    if (minimum.isInt() && minimum.asInt() == kyo::Json::Value::minInt) {
        return "";  // the full range of the system's integers
    }
    if (!minimum.isNull() && !maximum.isNull()) {
        return " from " + number(minimum) + " to " + number(maximum);
    }
    if (!minimum.isNull()) {
        return " of at least " + number(minimum);
    }
    return maximum.isNull() ? "" : " of at most " + number(maximum);
}

/// The schema's requirement in words.
std::string expected(const Value& schema) {
    const Value& choices = member(schema, "enum");
    if (choices.isArray()) {
        std::vector<std::string> names;
        for (const auto& choice : choices) {
            names.push_back(inQuotes(choice.asString()));
        }
        return "one of " + listed(names) + " is expected";
    }
    const std::string type = member(schema, "type").asString();
    if (type == "string") {
        return "a text is expected";
    }
    if (type == "boolean") {
        return "true or false is expected";
    }
    if (type == "array" || type == "object") {
        return "an " + type + " is expected";
    }
    return (type == "integer" ? "a whole number" : "a number") + range(schema) + " is expected";
}

std::string shown(const Value& value) {
    if (value.isString()) {
        return inQuotes(value.asString());
    }
    if (value.isNumeric() || value.isBool()) {
        return value.asString();
    }
    return kindOf(value);
}

bool refusesOthers(const Value& schema) {
    const Value& others = member(schema, "additionalProperties");
    return others.isBool() && !others.asBool();
}

/// The value that the system reads where the schema demands a type; nothing when the system refuses it. A
/// document whose top level refuses unknown members (the manifest) is read without conversions.
std::optional<std::string> converted(const Value& value, const Value& schema, bool strict) {
    if (strict) {
        return std::nullopt;
    }
    const std::string type = member(schema, "type").asString();
    if (type == "string" && (value.isNumeric() || value.isBool())) {
        return "the text " + inQuotes(value.asString());
    }
    if (type == "object" && value.isNull() && member(schema, "required").isNull()) {
        return "an empty object";
    }
    if (type == "array" && value.isNull() && member(schema, "minItems").isNull()) {
        return "an empty array";
    }
    if (type == "string" && value.isNull() && member(schema, "minLength").isNull()) {
        return "an empty text";
    }
    const bool isLeftOut = value.isNull() && !member(schema, "default").isNull();
    if (type == "integer" && (value.isBool() || isLeftOut)) {
        return value.isBool() && value.asBool() ? "1" : "0";
    }
    if (type == "integer" && value.isDouble()) {
        const double whole = std::trunc(value.asDouble());
        const Value& minimum = member(schema, "minimum");
        const Value& maximum = member(schema, "maximum");
        const double low = minimum.isNumeric() ? minimum.asDouble() : -9.2233720368547e18;
        const double high = maximum.isNumeric() ? maximum.asDouble() : 9.2233720368547e18;
        if (whole >= low && whole <= high) {
            return std::to_string(static_cast<long long>(whole));
        }
    }
    return std::nullopt;
}

/// Names and values that the system cannot carry into a report.
void checkText(const Place& place, const std::string& text, Findings& findings) {
    Value back;  // the writer replaces what is not UTF-8
    if (text.find('\0') != std::string::npos) {
        findings.error(place, "holds U+0000", "a text without zero bytes is expected");
    } else if (!kyo::Json::Reader().parse(vlmProd::compactText(text), back) || back.asString() != text) {
        findings.error(place, "is not UTF-8: reports show U+FFFD in place of its other bytes",
                       "save the file as UTF-8");
    }
}

/// Reports unknown members. A schema refuses them with additionalProperties.
void checkMemberNames(const Place& place, const Value& schema, Findings& findings) {
    if (place.value->isString()) {
        checkText(place, place.value->asString(), findings);
    }
    if (place.value->isArray()) {
        for (kyo::Json::ArrayIndex i = 0; i < place.value->size(); ++i) {
            checkMemberNames(place.element(i), elementSchema(schema, i), findings);
        }
        return;
    }
    if (!place.value->isObject() || !schema.isObject()) {
        return;
    }
    const bool isRoot = place.path == "$";
    const bool refused = refusesOthers(schema);
    for (const auto& key : place.value->getMemberNames()) {
        const Place child = place.member(key);
        checkText(child, key, findings);
        const Value& part = memberSchema(schema, key);
        if (!part.isNull()) {
            checkMemberNames(child, part, findings);
            continue;
        }
        if (isRoot && key == "$schema" && !refused) {
            continue;  // for editors
        }
        std::vector<std::string> free;
        for (const auto& known : member(schema, "properties").getMemberNames()) {
            if (!place.value->isMember(known)) {
                free.push_back(known);
            }
        }
        std::string suggestion = didYouMean(key, free);
        if (suggestion.empty() && !member(schema, "properties").empty()) {
            suggestion = "known here: " + listed(member(schema, "properties").getMemberNames());
        }
        if (refused && !member(schema, "patternProperties").empty()) {
            findings.error(child, inQuotes(key) + " is no instance id: vlmmaster may not start with it",
                           "write a decimal number");
        } else if (refused) {
            findings.error(child, inQuotes(key) + " is not known", suggestion);
        } else {
            findings.warning(child, inQuotes(key) + " is ignored: nothing reads it", suggestion);
        }
    }
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

/// The name between the quotes of a validator's message.
std::string nameIn(const std::string& message) {
    const auto first = message.find('\'');
    const auto last = message.rfind('\'');
    return first < last ? message.substr(first + 1, last - first - 1) : std::string();
}

/// Translates one message of the validator into one of ours.
void translate(const Place& place, const Value& schema, bool strict, const std::string& message,
               Findings& findings) {
    const Value& value = *place.value;
    if (startsWith(message, "Missing required property")) {
        const std::string key = nameIn(message);
        std::vector<std::string> unknown;
        for (const auto& present : value.getMemberNames()) {
            if (memberSchema(schema, present).isNull()) {
                unknown.push_back(present);
            }
        }
        const std::string mistyped = nearest(key, unknown);
        const std::string meaning = member(memberSchema(schema, key), "description").asString();
        findings.error(place, inQuotes(key) + " is missing",
                       mistyped.empty() ? meaning : "rename " + inQuotes(mistyped) + " to " + inQuotes(key));
    } else if (startsWith(message, "Value type not permitted")) {
        if (const auto reading = converted(value, schema, strict)) {
            findings.warning(place, "is " + shown(value) + ", which is read as " + *reading,
                             expected(schema));
        } else {
            const bool scalar = value.isString() || value.isNumeric() || value.isBool();
            findings.error(
                place,
                scalar ? "is " + std::string(kindOf(value)) + " (" + shown(value) + "); " + expected(schema)
                       : "is " + std::string(kindOf(value)) + "; " + expected(schema),
                member(schema, "description").asString());
        }
    } else if (startsWith(message, "Failed to match against any enum")) {
        std::vector<std::string> choices;
        for (const auto& choice : member(schema, "enum")) {
            choices.push_back(choice.asString());
        }
        findings.error(place, "is " + shown(value) + "; " + expected(schema),
                       didYouMean(place.text(), choices));
    } else if (startsWith(message, "Expected number")) {
        findings.error(place, "is " + shown(value) + "; " + expected(schema),
                       member(schema, "description").asString());
    } else if (startsWith(message, "Array should contain no fewer") ||
               startsWith(message, "String should be no fewer")) {
        findings.error(place, "is empty", member(schema, "description").asString());
    } else {
        findings.error(place, message, member(schema, "description").asString());
    }
}

/// True for messages that repeat an error of a lower level, and for those about member names, which
/// checkMemberNames() reports.
bool isEcho(const std::string& message) {
    return startsWith(message, "Failed to validate") || startsWith(message, "Object contains a property");
}

}  // namespace

Schema::Schema(const std::string& text) : m_compiled(std::make_unique<Compiled>()) {
    kyo::Json::Reader reader;
    if (!reader.parse(text, m_document, false)) {
        throw std::runtime_error("a built-in schema is not JSON: " + reader.getFormattedErrorMessages());
    }
    valijson::SchemaParser parser;
    const valijson::adapters::JsonCppAdapter adapter(m_document);
    parser.populateSchema(adapter, m_compiled->schema);
}

Schema::~Schema() = default;

const Schema& Schema::of(Kind kind) {
    static std::array<std::unique_ptr<Schema>, 4> schemas;
    static std::array<std::once_flag, 4> once;
    auto& schema = schemas.at(static_cast<std::size_t>(kind));
    std::call_once(once.at(static_cast<std::size_t>(kind)),
                   [&] { schema = std::make_unique<Schema>(schemaText(kind)); });
    return *schema;
}

void Schema::check(const Document& document, Findings& findings) const {
    valijson::Validator validator;
    valijson::ValidationResults results;
    const valijson::adapters::JsonCppAdapter adapter(document.root);
    const bool good = validator.validate(m_compiled->schema, adapter, &results);
    bool explained = good;
    checkMemberNames(Place::rootOf(document), m_document, findings);
    for (const auto& finding : findings.list()) {
        explained = explained || finding.severity == Severity::Error;
    }
    for (const auto& result : results) {
        if (isEcho(result.description)) {
            continue;
        }
        Place place = Place::rootOf(document);
        const Value* schema = &m_document;
        for (std::size_t i = 1; i < result.context.size(); ++i) {
            const std::string& step = result.context[i];  // "[name]" or "[3]"
            const std::string name = step.size() >= 2 ? step.substr(1, step.size() - 2) : step;
            if (place.value->isArray()) {
                const auto index = static_cast<kyo::Json::ArrayIndex>(std::stoul(name));
                schema = &elementSchema(*schema, index);
                place = place.element(index);
            } else {
                schema = &memberSchema(*schema, name);
                place = place.member(name);
            }
        }
        translate(place, *schema, refusesOthers(m_document), result.description, findings);
        explained = true;
    }
    if (!explained) {  // the validator gave nothing but echoes
        findings.error(Place::rootOf(document), "does not agree with the schema");
    }
}

std::vector<std::string> Schema::topLevelNames() const {
    return member(m_document, "properties").getMemberNames();
}

}  // namespace vlmCheck
