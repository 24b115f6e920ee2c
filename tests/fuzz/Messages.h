#pragma once
/// SOME/IP messages around parts of the input.
#include "Fuzzing.h"
#include "someip/Message.h"

namespace vlmFuzz {

/// The header with the right length, and the payload.
inline std::vector<std::uint8_t> messageOf(someip::Header header, Bytes payload) {
    header.interfaceVersion = 1;
    header.length = static_cast<std::uint32_t>(someip::kLengthCovers + payload.size());
    std::vector<std::uint8_t> bytes(someip::kHeaderSize);
    someip::writeHeader(header, bytes.data());
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

}  // namespace vlmFuzz
