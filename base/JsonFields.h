#pragma once
/// Reading members of JSON documents whose content nobody vouches for: a conversion that the JSON library
/// would throw on is a false here. What the library converts (a number as a text, null as "" or 0) converts.
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// The member, or the shared null value when `object` is not an object or has no such member. Never adds.
const kyo::Json::Value& member(const kyo::Json::Value& object, const std::string& key);
/// The element, or the shared null value when `array` is not an array or is shorter.
const kyo::Json::Value& element(const kyo::Json::Value& array, kyo::Json::ArrayIndex index);

/// False for an array or an object; `out` is then empty.
bool toText(const kyo::Json::Value& value, std::string& out);
/// False for a text, an array, an object, or a number outside the type's range; `out` is then 0.
bool toInt(const kyo::Json::Value& value, int& out);
bool toInt64(const kyo::Json::Value& value, std::int64_t& out);

/// As toText(), with the empty string for what does not convert.
std::string textOf(const kyo::Json::Value& value);

/// What a value is, for messages: "an array", "a text", "a number", ...
const char* kindOf(const kyo::Json::Value& value);

/// Compact JSON text, without a line end: the one form used for weights, logs and envelopes.
std::string compactText(const kyo::Json::Value& value);

}  // namespace vlmProd
