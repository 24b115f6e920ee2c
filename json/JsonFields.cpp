#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

const Value& member(const Value& object, const std::string& key) {
    if (!object.isObject()) {
        return Value::nullSingleton();
    }
    const Value* found = object.find(key.data(), key.data() + key.size());
    return found != nullptr ? *found : Value::nullSingleton();
}

bool toText(const Value& value, std::string& out) {
    if (value.isArray() || value.isObject()) {
        out.clear();
        return false;
    }
    out = value.asString();
    return true;
}

bool toInt64(const Value& value, std::int64_t& out) {
    // The library asks only for the 32-bit range in isConvertibleTo, hence these tests.
    out = 0;
    if (value.isNull() || value.isBool()) {
        out = value.isBool() && value.asBool() ? 1 : 0;
        return true;
    }
    if (value.isInt64()) {
        out = value.asInt64();
        return true;
    }
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (value.isDouble() && value.asDouble() >= -limit && value.asDouble() < limit) {
        out = static_cast<std::int64_t>(value.asDouble());
        return true;
    }
    return false;
}

bool toInt(const Value& value, int& out) {
    std::int64_t number = 0;
    const bool fits = toInt64(value, number) && number == static_cast<int>(number);
    out = fits ? static_cast<int>(number) : 0;
    return fits;
}

std::string textOf(const Value& value) {
    std::string text;
    toText(value, text);
    return text;
}

std::string compactText(const Value& value) {
    return kyo::Json::FastWriter().write(value);
}

}  // namespace vlmProd
