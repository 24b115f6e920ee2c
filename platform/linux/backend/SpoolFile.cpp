#include "backend/SpoolFile.h"

#include <botan/hash.h>

#include <array>

namespace kyo::orx {

namespace {

constexpr std::string_view kMagic = "VLMSPOOL";
constexpr std::size_t kChecksumAt = 12;
constexpr std::size_t kLongestId = 255;

template <typename Number>
void put(std::string& out, Number number) {
    for (std::size_t i = 0; i < sizeof number; ++i) {
        out.push_back(static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i)));
    }
}

template <typename Number>
Number take(std::string_view content, std::size_t at) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        number |= static_cast<std::uint64_t>(static_cast<unsigned char>(content[at + i])) << (8 * i);
    }
    return static_cast<Number>(number);
}

/// Returns the checksum of all bytes but its own four, in the digest's order.
std::string checksumOf(std::string_view content) {
    const auto bytes = [](std::string_view part) {
        return reinterpret_cast<const std::uint8_t*>(part.data());
    };
    const auto crc = Botan::HashFunction::create_or_throw("CRC32");
    crc->update(bytes(content), kChecksumAt);
    const std::string_view rest = content.substr(kChecksumAt + 4);
    crc->update(bytes(rest), rest.size());
    std::array<std::uint8_t, 4> digest{};
    crc->final(digest.data());
    return {digest.begin(), digest.end()};
}

}  // namespace

std::string writeSpoolFile(const SpooledEnvelope& envelope) {
    const std::string_view id = std::string_view(envelope.messageId).substr(0, kLongestId);
    std::string out;
    out.reserve(kSpoolHeaderBytes + id.size() + envelope.payload.size());
    out += kMagic;
    put(out, static_cast<std::uint16_t>(kSpoolFormat));
    put(out, static_cast<std::uint8_t>(envelope.encoding));
    put(out, static_cast<std::uint8_t>(id.size()));
    put(out, std::uint32_t{0});
    put(out, envelope.number);
    put(out, envelope.storedMs);
    put(out, envelope.textBytes);
    put(out, static_cast<std::uint32_t>(envelope.payload.size()));
    out += id;
    out += envelope.payload;
    out.replace(kChecksumAt, 4, checksumOf(out));
    return out;
}

bool readSpoolHeader(std::string_view content, SpooledEnvelope& envelope) {
    if (content.size() < kSpoolHeaderBytes || content.substr(0, kMagic.size()) != kMagic) {
        return false;
    }
    envelope.number = take<std::uint64_t>(content, 16);
    envelope.storedMs = take<std::int64_t>(content, 24);
    return true;
}

bool readSpoolFile(std::string_view content, SpooledEnvelope& envelope, std::string& error) {
    if (!readSpoolHeader(content, envelope)) {
        error = content.size() < kSpoolHeaderBytes ? "it ends inside its header" : "it is no spool file";
        return false;
    }
    if (const unsigned version = take<std::uint16_t>(content, 8); version != kSpoolFormat) {
        error = "it is of format " + std::to_string(version) + ", and format " +
                std::to_string(kSpoolFormat) + " is known";
        return false;
    }
    const std::size_t idBytes = take<std::uint8_t>(content, 11);
    const std::size_t payloadBytes = take<std::uint32_t>(content, 36);
    if (content.size() != kSpoolHeaderBytes + idBytes + payloadBytes) {
        error = "its " + std::to_string(content.size()) + " bytes are not the " +
                std::to_string(kSpoolHeaderBytes + idBytes + payloadBytes) + " that its header gives";
        return false;
    }
    if (content.substr(kChecksumAt, 4) != checksumOf(content)) {
        error = "its checksum is wrong";
        return false;
    }
    const unsigned encoding = take<std::uint8_t>(content, 10);
    if (encoding > static_cast<unsigned>(Encoding::Zstd)) {
        error = "its encoding " + std::to_string(encoding) + " is not known";
        return false;
    }
    envelope.encoding = static_cast<Encoding>(encoding);
    envelope.textBytes = take<std::uint32_t>(content, 32);
    envelope.messageId = content.substr(kSpoolHeaderBytes, idBytes);
    envelope.payload = content.substr(kSpoolHeaderBytes + idBytes);
    return true;
}

}  // namespace kyo::orx
