#pragma once
/// Values of JSON documents where a wrong type matters to nobody: a conversion on which the JSON library
/// would throw is a false here. json/FieldReader.h reads documents whose faults must be named.
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// The member, or the shared null value when `object` is not an object or has no such member. Never adds.
const kyo::Json::Value& member(const kyo::Json::Value& object, const std::string& key);

/// The library's conversions: numbers and booleans as text, null as "" or 0, true as 1, digits behind the
/// point cut off. False for an array or an object; `out` is then empty.
bool toText(const kyo::Json::Value& value, std::string& out);
/// False for a text, an array, an object, or a number outside the type's range; `out` is then 0.
bool toInt(const kyo::Json::Value& value, int& out);
bool toInt64(const kyo::Json::Value& value, std::int64_t& out);

/// As toText(), with the empty string for what does not convert.
std::string textOf(const kyo::Json::Value& value);

/// Compact JSON text, without a line end: the one form used for weights, logs and envelopes.
std::string compactText(const kyo::Json::Value& value);

}  // namespace vlmProd
