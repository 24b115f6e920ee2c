#pragma once
/// Converts samples to event payloads and back. The two functions are defined in someip/Codec.h; generated
/// code instantiates them once per data type, so that receivers and senders need not compile the codec.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace someip {

/// Structures in one payload, at most. An empty structure costs its sender four bytes and the receiver a
/// whole object, so the size of the datagram does not limit the memory.
inline constexpr std::size_t kMaxSamplesPerMessage = 16384;

/// Why a payload was refused.
enum class DecodeResult : std::uint8_t {
    Good,
    Truncated,  ///< a structure ends inside a member
    Malformed,  ///< any other inconsistency
};

/// The result of decoding one payload.
struct DecodeReport {
    DecodeResult result = DecodeResult::Good;
    std::string error;                 ///< empty when good
    std::uint32_t doubledMembers = 0;  ///< members that occur twice; the first counts
};

/// Replaces `out` by the samples of a payload. Returns false, with a filled `report` and an empty `out`, when
/// the payload is malformed.
template <typename DT>
bool decodeSamples(std::span<const std::uint8_t> payload, std::vector<DT>& out, DecodeReport& report);

/// As above, for callers that only need the reason.
template <typename DT>
bool decodeSamples(std::span<const std::uint8_t> payload, std::vector<DT>& out, std::string& error) {
    DecodeReport report;
    const bool good = decodeSamples(payload, out, report);
    error = std::move(report.error);
    return good;
}

/// Appends the payload to `out`.
template <typename DT>
void appendSamples(const std::vector<DT>& samples, std::vector<std::uint8_t>& out);

/// Replaces `out` by the payload.
template <typename DT>
void encodeSamples(const std::vector<DT>& samples, std::vector<std::uint8_t>& out) {
    out.clear();
    appendSamples(samples, out);
}

}  // namespace someip
