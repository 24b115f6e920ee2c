#pragma once
/// Reads JSON values of which a wrong type needs no message: these functions return false where the JSON
/// library's conversion throws. json/FieldReader.h reads documents whose faults must be named.
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// Returns the member; the shared null value when `object` is no object or has no such member.
const kyo::Json::Value& member(const kyo::Json::Value& object, const std::string& key);

/// Converts as the library does: numbers and booleans to text, null to "" or 0, true to 1; digits after the
/// point are cut off. Returns false, with an empty `out`, for an array or an object.
bool toText(const kyo::Json::Value& value, std::string& out);
/// Returns false, with 0 in `out`, for a text, an array, an object or a number outside the type's range.
bool toInt(const kyo::Json::Value& value, int& out);
bool toInt64(const kyo::Json::Value& value, std::int64_t& out);

/// Returns the text of toText(); an empty one for a value that does not convert.
std::string textOf(const kyo::Json::Value& value);

/// Returns compact JSON text without a line end, the form for weights, logs and envelopes.
std::string compactText(const kyo::Json::Value& value);

}  // namespace vlmProd
