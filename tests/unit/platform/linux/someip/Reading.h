#pragma once
/// A data type like the generated ones, with a member of every kind, and its service.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ac/com/types.h"
#include "someip/Codec.h"
#include "someip/Message.h"

namespace vlmTest {

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

enum class Quality : std::int16_t { bad = -1, good = 1 };

struct Reading {
    std::optional<std::uint8_t> small;
    std::optional<std::uint16_t> medium;
    std::optional<std::uint32_t> large;
    std::optional<double> precise;
    std::optional<bool> flag;
    std::optional<Quality> quality;
    std::optional<std::string> text;
    std::optional<float> coarse;
    std::optional<std::int64_t> offset;

    bool operator==(const Reading&) const = default;
};

/// Calls `visit(id, member)` for each member.
template <typename AnyReading, typename Visit>
void visitMembers(AnyReading& reading, Visit&& visit) {
    visit(1, reading.small);
    visit(2, reading.medium);
    visit(3, reading.large);
    visit(4, reading.precise);
    visit(5, reading.flag);
    visit(6, reading.quality);
    visit(7, reading.text);
    visit(8, reading.coarse);
    visit(9, reading.offset);
}

inline bool readMember(someip::MemberReader& in, Reading& out) {
    bool known = false;
    visitMembers(out, [&](std::uint16_t id, auto& member) {
        if (id == in.id()) {
            in.take(member);
            known = true;
        }
    });
    return known;
}

inline void writeMembers(someip::MemberWriter& out, const Reading& in) {
    visitMembers(in, [&](std::uint16_t id, const auto& member) { out.put(id, member); });
}

inline Reading fullReading() {
    return {0x2A, 0x1234, 1, 1.0, true, Quality::bad, "ab", -0.5f, -2};
}

inline constexpr ac::com::ServiceInterface kMeter{"Meter", 0x4101, 1, 7};
inline constexpr ac::com::EventInterface kReadings{"readings", 0x8001, 0x0001};
inline constexpr ac::com::EventInterface kAlarms{"alarms", 0x8002, 0x0002};

/// Of a notification of `readings`.
inline someip::Header headerOf(std::uint16_t session) {
    someip::Header header;
    header.service = kMeter.serviceId;
    header.method = kReadings.eventId;
    header.session = session;
    header.interfaceVersion = kMeter.majorVersion;
    return header;
}

inline Bytes messageOf(const Bytes& payload, std::uint16_t session = 1) {
    someip::Header header = headerOf(session);
    header.length = static_cast<std::uint32_t>(8 + payload.size());
    Bytes bytes(someip::kHeaderSize);
    writeHeader(header, bytes.data());
    return bytes + payload;
}

}  // namespace vlmTest
