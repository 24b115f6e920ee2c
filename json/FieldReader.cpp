#include "json/FieldReader.h"

#include <algorithm>

#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

std::string Field::place() const {
    return m_path.empty() ? m_reader->m_document : m_path;
}

Field Field::operator[](const std::string& key) const {
    m_asked.push_back(key);
    return {*m_reader, member(*m_value, key), m_path.empty() ? key : m_path + "." + key};
}

Field Field::operator[](kyo::Json::ArrayIndex index) const {
    const bool there = m_value->isArray() && m_value->isValidIndex(index);
    return {*m_reader, there ? (*m_value)[index] : Value::nullSingleton(),
            m_path + "[" + std::to_string(index) + "]"};
}

/// True where there is nothing to read and that is no fault.
bool Field::isLeftOut() const {
    return isAbsent() || (m_value->isNull() && m_reader->m_reading == Reading::Converting);
}

bool Field::object() const {
    return m_value->isObject() || isLeftOut() || mismatch("an object", true);
}

std::vector<std::string> Field::names() const {
    return object() && m_value->isObject() ? m_value->getMemberNames() : std::vector<std::string>();
}

std::vector<Field> Field::elements(std::string_view expected) const {
    std::vector<Field> result;
    if (!m_value->isArray() && !isLeftOut()) {
        mismatch(expected, true);
    }
    for (kyo::Json::ArrayIndex i = 0; m_value->isArray() && i < m_value->size(); ++i) {
        result.push_back((*this)[i]);
    }
    return result;
}

bool Field::text(std::string& out) const {
    if (isAbsent()) {
        return true;
    }
    const bool exact = m_reader->m_reading == Reading::Exact;
    if (exact ? !m_value->isString() : m_value->isArray() || m_value->isObject()) {
        return mismatch("a text", false);  // without the value: it may be a password
    }
    out = m_value->asString();
    return true;
}

bool Field::name(std::string& out) const {
    std::string read = out;
    if (!text(read) || !expect(read.find('\0') == std::string::npos, "a text without zero bytes")) {
        return false;
    }
    out = std::move(read);
    return true;
}

bool Field::flag(bool& out) const {
    if (!isAbsent() && !m_value->isBool()) {
        return mismatch("true or false", true);
    }
    out = isAbsent() ? out : m_value->asBool();
    return true;
}

bool Field::real(double& out) const {
    if (!isAbsent() && !m_value->isNumeric()) {
        return mismatch("a number", true);
    }
    out = isAbsent() ? out : m_value->asDouble();
    return true;
}

bool Field::integer(std::int64_t& out, std::int64_t least, std::int64_t most) const {
    if (isAbsent()) {
        return true;
    }
    const bool readable =
        m_reader->m_reading == Reading::Converting || (m_value->isInt64() && !m_value->isBool());
    std::int64_t read = 0;
    if (!readable || !toInt64(*m_value, read) || read < least || read > most) {
        using Limits = std::numeric_limits<std::int64_t>;
        return mismatch(least == Limits::min() && most == Limits::max()
                            ? "a 64-bit number"
                            : "a number from " + std::to_string(least) + " to " + std::to_string(most),
                        true);
    }
    out = read;
    return true;
}

bool Field::expect(bool good, std::string_view expected) const {
    return good || fault(std::string(expected) + " is expected");
}

bool Field::fault(std::string_view reason) const {
    m_reader->m_faults.push_back(place() + ": " + std::string(reason));
    return false;
}

void Field::refuseOthers() const {
    const std::vector<std::string> asked = m_asked;
    std::string known;
    for (const std::string& name : asked) {
        if (name.front() != '$') {  // "$schema" is for editors
            known += (known.empty() ? "" : ", ") + name;
        }
    }
    for (const std::string& name : names()) {
        if (std::find(asked.begin(), asked.end(), name) == asked.end()) {
            (*this)[name].fault("no such key; known here are " + known);
        }
    }
}

bool Field::mismatch(std::string_view expected, bool showValue) const {
    constexpr std::size_t longest = 60;
    std::string reason = std::string(expected) + " is expected, found " + kindOf(*m_value);
    if (showValue && !m_value->isArray() && !m_value->isObject() && !m_value->isNull()) {
        const std::string shown = compactText(*m_value);
        reason += " (" + (shown.size() > longest ? shown.substr(0, longest) + "..." : shown) + ")";
    }
    return fault(reason);
}

const char* kindOf(const Value& value) {
    switch (value.type()) {
        case kyo::Json::nullValue:
            return &value == &Value::nullSingleton() ? "nothing" : "null";
        case kyo::Json::intValue:
        case kyo::Json::uintValue:
        case kyo::Json::realValue:
            return "a number";
        case kyo::Json::stringValue:
            return "a text";
        case kyo::Json::booleanValue:
            return "a boolean";
        case kyo::Json::arrayValue:
            return "an array";
        case kyo::Json::objectValue:
            return "an object";
    }
    return "an unknown value";
}

}  // namespace vlmProd
