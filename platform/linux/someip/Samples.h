#pragma once
/// Event payloads as their users see them: samples in, bytes out, and back. The two functions are defined in
/// someip/Codec.h; generated code instantiates them once per data type, so that who receives or sends samples
/// need not compile the coding of their members.
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace someip {

/// Why a payload was refused.
enum class DecodeResult : std::uint8_t {
    Good,
    Truncated,  ///< a structure ends before its members do
    Malformed,  ///< any other contradiction
};

/// What decoding has found out about one payload.
struct DecodeReport {
    DecodeResult result = DecodeResult::Good;
    std::string error;                 ///< empty when good
    std::uint32_t doubledMembers = 0;  ///< members given twice; the first counted
};

/// Decodes a payload into `out` (replaced). False, with `report` filled and `out` empty, when it is not good.
template <typename DT>
bool decodeSamples(std::span<const std::uint8_t> payload, std::vector<DT>& out, DecodeReport& report);

/// As above, for callers that need the reason alone.
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

/// Encodes samples into `out` (replaced).
template <typename DT>
void encodeSamples(const std::vector<DT>& samples, std::vector<std::uint8_t>& out) {
    out.clear();
    appendSamples(samples, out);
}

}  // namespace someip
