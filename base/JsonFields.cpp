#include "base/JsonFields.h"

#include <limits>

namespace vlmProd {

using kyo::Json::Value;

const Value& member(const Value& object, const std::string& key) {
    if (!object.isObject()) {
        return Value::nullSingleton();
    }
    const Value* found = object.find(key.data(), key.data() + key.size());
    return found != nullptr ? *found : Value::nullSingleton();
}

const Value& element(const Value& array, kyo::Json::ArrayIndex index) {
    return array.isArray() && array.isValidIndex(index) ? array[index] : Value::nullSingleton();
}

bool toText(const Value& value, std::string& out) {
    if (value.isArray() || value.isObject()) {
        out.clear();
        return false;
    }
    out = value.asString();
    return true;
}

bool toInt(const Value& value, int& out) {
    if (!value.isString() && value.isConvertibleTo(kyo::Json::intValue)) {
        out = value.asInt();
        return true;
    }
    out = 0;
    return false;
}

bool toInt64(const Value& value, std::int64_t& out) {
    // The library asks only for the 32-bit range in isConvertibleTo, hence the tests by hand.
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

std::string textOf(const Value& value) {
    std::string text;
    toText(value, text);
    return text;
}

const char* kindOf(const Value& value) {
    switch (value.type()) {
        case kyo::Json::nullValue:
            return "nothing";
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

std::string compactText(const Value& value) {
    return kyo::Json::FastWriter().write(value);
}

}  // namespace vlmProd
