#pragma once
/// Big-endian loads and stores. The caller must have checked the length.
#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace someip {

template <std::unsigned_integral T>
constexpr T byteSwapped(T value) noexcept {
    if constexpr (sizeof(T) == 1) {
        return value;
    } else if constexpr (sizeof(T) == 2) {
        return __builtin_bswap16(value);
    } else if constexpr (sizeof(T) == 4) {
        return __builtin_bswap32(value);
    } else {
        return __builtin_bswap64(value);
    }
}

template <std::unsigned_integral T>
inline T loadBig(const std::uint8_t* from) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return std::endian::native == std::endian::little ? byteSwapped(value) : value;
}

template <std::unsigned_integral T>
inline void storeBig(std::uint8_t* to, T value) noexcept {
    if constexpr (std::endian::native == std::endian::little) {
        value = byteSwapped(value);
    }
    std::memcpy(to, &value, sizeof value);
}

/// Appends to any container of bytes with insert().
template <std::unsigned_integral T, typename Bytes>
inline void appendBig(Bytes& to, T value) {
    std::uint8_t bytes[sizeof value];
    storeBig(bytes, value);
    to.insert(to.end(), bytes, bytes + sizeof bytes);
}

}  // namespace someip
