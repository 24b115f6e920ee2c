#pragma once
/// How adapters write a sample's fields into a record.
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "eb/com/optional.h"
#include "kyo/Json.h"
#include "kyo/Status.h"

namespace vlmProd {

/// Members of samples that no record contains, as JSON has neither infinity nor "not a number".
inline kyo::Counter& notFiniteMembers() {
    static auto& members = kyo::Status::counter("samples.notFinite");
    return members;
}

/// Writes the field under its name: real numbers for float and double, unsigned integers for unsigned fields
/// and enumerations, integers for signed fields, booleans and texts. Writes nothing for a field that the
/// sample does not have. A floating-point number that JSON does not have is counted and not written. `name`
/// must live until the process ends.
template <typename T>
void putField(kyo::Json::Value& record, const kyo::Json::StaticString& name,
              const eb::com::optional<T>& field) {
    if (!field) {
        return;
    }
    if constexpr (std::is_same_v<T, bool>) {
        record[name] = kyo::Json::Value(*field);
    } else if constexpr (std::is_enum_v<T>) {
        using Number = std::underlying_type_t<T>;
        if (const auto number = static_cast<Number>(*field); std::is_signed_v<Number> && number < Number{}) {
            record[name] = kyo::Json::Value(static_cast<kyo::Json::Int64>(number));
        } else {
            record[name] = kyo::Json::Value(static_cast<kyo::Json::UInt64>(number));
        }
    } else if constexpr (std::is_floating_point_v<T>) {
        if (std::isfinite(*field)) {
            record[name] = kyo::Json::Value(static_cast<double>(*field));
        } else {
            notFiniteMembers().add();
        }
    } else if constexpr (std::is_unsigned_v<T>) {
        record[name] = kyo::Json::Value(static_cast<kyo::Json::UInt64>(*field));
    } else if constexpr (std::is_signed_v<T>) {
        record[name] = kyo::Json::Value(static_cast<kyo::Json::Int64>(*field));
    } else {
        record[name] = kyo::Json::Value(*field);
    }
}

/// Writes the key member as an unsigned integer. Returns the key value, which selects the writer of the other
/// fields. Writes nothing for a sample without its key.
template <typename T>
std::optional<std::int64_t> putKey(kyo::Json::Value& record, const kyo::Json::StaticString& name,
                                   const eb::com::optional<T>& key) {
    static_assert(std::is_enum_v<T> || std::is_integral_v<T>, "a key member is an enumeration or an integer");
    if (!key) {
        return std::nullopt;
    }
    const auto value = static_cast<std::int64_t>(*key);
    record[name] = kyo::Json::Value(static_cast<kyo::Json::UInt64>(value));
    return value;
}

}  // namespace vlmProd
