#pragma once
/// A data type as the generator makes them, with a member of every kind, and the service that it belongs to.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ac/com/codec.h"
#include "ac/com/types.h"

namespace vlmTest {

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

inline bool readMember(ac::com::MemberReader& in, Reading& out) {
    switch (in.id()) {
        case 1:
            in.take(out.small);
            return true;
        case 2:
            in.take(out.medium);
            return true;
        case 3:
            in.take(out.large);
            return true;
        case 4:
            in.take(out.precise);
            return true;
        case 5:
            in.take(out.flag);
            return true;
        case 6:
            in.take(out.quality);
            return true;
        case 7:
            in.take(out.text);
            return true;
        case 8:
            in.take(out.coarse);
            return true;
        case 9:
            in.take(out.offset);
            return true;
        default:
            return false;
    }
}

inline void writeMembers(ac::com::MemberWriter& out, const Reading& in) {
    out.put(1, in.small);
    out.put(2, in.medium);
    out.put(3, in.large);
    out.put(4, in.precise);
    out.put(5, in.flag);
    out.put(6, in.quality);
    out.put(7, in.text);
    out.put(8, in.coarse);
    out.put(9, in.offset);
}

inline Reading fullReading() {
    Reading reading;
    reading.small = 0x2A;
    reading.medium = 0x1234;
    reading.large = 1;
    reading.precise = 1.0;
    reading.flag = true;
    reading.quality = Quality::bad;
    reading.text = "ab";
    reading.coarse = -0.5f;
    reading.offset = -2;
    return reading;
}

inline constexpr ac::com::ServiceInterface kMeter{"Meter", 0x4101, 1, 7};
inline constexpr ac::com::EventInterface kReadings{"readings", 0x8001, 0x0001};
inline constexpr ac::com::EventInterface kAlarms{"alarms", 0x8002, 0x0002};

}  // namespace vlmTest
