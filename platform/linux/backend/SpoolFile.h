#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "backend/Compression.h"

namespace kyo::orx {

/// One envelope as it waits on disk.
struct SpooledEnvelope {
    std::uint64_t number = 0;     ///< of the spool; counts from 1 and is never used twice
    std::int64_t storedMs = 0;    ///< wall clock, milliseconds since 1970; for its age alone, never for order
    std::string messageId;        ///< at most 255 bytes
    std::uint32_t textBytes = 0;  ///< length of the envelope's JSON text
    Encoding encoding = Encoding::Plain;
    std::string payload;  ///< the text, encoded
};

/// The version of file and folder that this program writes, and the only one that it reads.
inline constexpr unsigned kSpoolFormat = 1;

/// The number of bytes before identifier and payload.
inline constexpr std::size_t kSpoolHeaderBytes = 40;

/// The file's content: a header of little-endian numbers, the identifier, the payload.
///
///      0  8  "VLMSPOOL"                16  8  number
///      8  2  version of the format     24  8  storedMs
///     10  1  encoding                  32  4  textBytes
///     11  1  length of the identifier  36  4  length of the payload
///     12  4  CRC-32 of all else
std::string writeSpoolFile(const SpooledEnvelope& envelope);

/// Reads such content, which is untrusted. Returns false with the reason in `error`.
bool readSpoolFile(std::string_view content, SpooledEnvelope& envelope, std::string& error);

/// Reads only the header's number and time. Checks only the first bytes, and returns false when they are not
/// those of a header.
bool readSpoolHeader(std::string_view content, SpooledEnvelope& envelope);

}  // namespace kyo::orx
