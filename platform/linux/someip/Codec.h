#pragma once
/// Event payloads: a dynamic array (32-bit length) of structures (32-bit length each) whose members are
/// tag-length-value coded, big endian. Generated code supplies two functions per structure, found by
/// argument-dependent lookup:
///     bool readMember(someip::MemberReader& in, DT_x& out);         // false: unknown id
///     void writeMembers(someip::MemberWriter& out, const DT_x& in);
/// Received bytes are untrusted: every length is checked against the bytes that are left before it is used,
/// and a length alone never causes an allocation. docs/someip.md describes the format.
#include <bit>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "someip/ByteOrder.h"
#include "someip/Samples.h"

namespace someip {

namespace detail {

template <typename T, bool = std::is_enum_v<T>>
struct WireValue {
    using Type = std::underlying_type_t<T>;
};
template <typename T>
struct WireValue<T, false> {
    using Type = T;
};

/// The unsigned integer type of that size.
template <std::size_t bytes>
struct Carrier;
template <>
struct Carrier<1> {
    using Type = std::uint8_t;
};
template <>
struct Carrier<2> {
    using Type = std::uint16_t;
};
template <>
struct Carrier<4> {
    using Type = std::uint32_t;
};
template <>
struct Carrier<8> {
    using Type = std::uint64_t;
};

constexpr std::uint8_t wireTypeOfSize(std::size_t bytes) {
    return bytes == 1 ? 0 : bytes == 2 ? 1 : bytes == 4 ? 2 : 3;
}

}  // namespace detail

/// Iterates over the members of one structure.
class MemberReader {
  public:
    explicit MemberReader(std::span<const std::uint8_t> structure) noexcept
        : m_at(structure.data()), m_end(structure.data() + structure.size()) {}

    /// Moves to the next member. Returns false at the end of the structure and after a failure.
    bool next() noexcept {
        if (m_at == m_end) {
            return false;
        }
        if (left() < 2) {
            return fail(DecodeResult::Truncated, "one byte is left where a tag needs two");
        }
        const auto tag = loadBig<std::uint16_t>(m_at);
        m_at += 2;
        m_id = tag & 0x0FFF;
        m_type = static_cast<std::uint8_t>(tag >> 12);
        if (m_type < 4) {
            return bound(std::size_t{1} << m_type);
        }
        return nextComplex();
    }

    std::uint16_t id() const noexcept { return m_id; }

    /// Reads the current member into `out`. T is bool, an integer, float, double, an enumeration (its
    /// underlying integer) or std::string. A wrong wire type or length marks the structure as malformed. If
    /// `out` has a value already, the member occurs twice, and the first value stays.
    template <typename T>
    void take(std::optional<T>& out) {
        if constexpr (std::is_same_v<T, std::string>) {
            takeText(out);
        } else {
            using Value = typename detail::WireValue<T>::Type;
            using Carrier = typename detail::Carrier<sizeof(Value)>::Type;
            if (m_type != detail::wireTypeOfSize(sizeof(Value))) {
                fail(DecodeResult::Malformed, "the wire type is not the one of the member's data type");
                return;
            }
            if (out.has_value()) {
                ++m_doubled;
                return;
            }
            const auto raw = loadBig<Carrier>(m_value);
            if constexpr (std::is_same_v<Value, bool>) {
                out = static_cast<T>(raw != 0);
            } else if constexpr (std::is_floating_point_v<Value>) {
                out = std::bit_cast<Value>(raw);
            } else {
                out = static_cast<T>(static_cast<Value>(raw));
            }
        }
    }

    /// Skips a member of unknown id, if its wire type gives its length.
    void skip() noexcept {
        if (m_type == 4) {
            fail(DecodeResult::Malformed, "an unknown member has wire type 4, whose length cannot be known");
        }
    }

    DecodeResult result() const noexcept { return m_result; }
    /// The reason of the failure and the id of the member that caused it.
    const char* reason() const noexcept { return m_reason; }
    std::uint32_t doubled() const noexcept { return m_doubled; }

  private:
    std::size_t left() const noexcept { return static_cast<std::size_t>(m_end - m_at); }
    bool bound(std::size_t size) noexcept {
        if (size > left()) {
            return fail(DecodeResult::Truncated, "the member is longer than what is left of the structure");
        }
        m_value = m_at;
        m_size = size;
        m_at += size;
        return true;
    }
    bool fail(DecodeResult result, const char* reason) noexcept;
    bool nextComplex() noexcept;
    void takeText(std::optional<std::string>& out);

    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
    const std::uint8_t* m_value = nullptr;
    std::size_t m_size = 0;
    std::uint16_t m_id = 0;
    std::uint8_t m_type = 0;
    DecodeResult m_result = DecodeResult::Good;
    std::uint32_t m_doubled = 0;
    const char* m_reason = "";
};

/// Appends the members of one structure to `out`.
class MemberWriter {
  public:
    explicit MemberWriter(std::vector<std::uint8_t>& out) noexcept : m_out(out) {}

    /// Writes tag and value; writes nothing for an absent value. `id` is at most 0xFFF.
    template <typename T>
    void put(std::uint16_t id, const std::optional<T>& value) {
        if (!value.has_value()) {
            return;
        }
        if constexpr (std::is_same_v<T, std::string>) {
            putText(id, *value);
        } else {
            using Value = typename detail::WireValue<T>::Type;
            using Carrier = typename detail::Carrier<sizeof(Value)>::Type;
            Carrier raw;
            if constexpr (std::is_floating_point_v<Value>) {
                raw = std::bit_cast<Carrier>(static_cast<Value>(*value));
            } else {
                raw = static_cast<Carrier>(static_cast<Value>(*value));
            }
            std::uint8_t bytes[2 + sizeof(Carrier)];
            storeBig(bytes, tag(detail::wireTypeOfSize(sizeof(Value)), id));
            storeBig(bytes + 2, raw);
            m_out.insert(m_out.end(), bytes, bytes + sizeof bytes);
        }
    }

  private:
    static std::uint16_t tag(unsigned wireType, std::uint16_t id) noexcept {
        return static_cast<std::uint16_t>((wireType << 12) | (id & 0x0FFFu));
    }
    void putText(std::uint16_t id, const std::string& text);

    std::vector<std::uint8_t>& m_out;
};

namespace detail {

/// Iterates over the structures of one payload.
class StructureReader {
  public:
    /// Checks the array's length. Bytes after the array are ignored.
    StructureReader(std::span<const std::uint8_t> payload, DecodeReport& report);
    /// Moves to the next structure. Returns false at the end of the array and after a failure.
    bool next(std::span<const std::uint8_t>& structure);
    /// Adds the findings of the current structure's members to the report. Returns false when the members
    /// failed.
    bool accept(const MemberReader& members);

  private:
    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
    std::size_t m_index = 0;
    DecodeReport& m_report;
};

/// Reserves a 32-bit length; the destructor writes it.
class LengthField {
  public:
    explicit LengthField(std::vector<std::uint8_t>& out) : m_out(out), m_start(out.size()) {
        m_out.resize(m_start + 4);
    }
    LengthField(const LengthField&) = delete;
    LengthField& operator=(const LengthField&) = delete;
    ~LengthField() {
        storeBig(m_out.data() + m_start, static_cast<std::uint32_t>(m_out.size() - m_start - 4));
    }

  private:
    std::vector<std::uint8_t>& m_out;
    std::size_t m_start;
};

}  // namespace detail

template <typename DT>
bool decodeSamples(std::span<const std::uint8_t> payload, std::vector<DT>& out, DecodeReport& report) {
    out.clear();
    report = DecodeReport{};
    detail::StructureReader structures(payload, report);
    std::span<const std::uint8_t> structure;
    while (structures.next(structure)) {
        DT& sample = out.emplace_back();
        MemberReader members(structure);
        while (members.next()) {
            if (!readMember(members, sample)) {
                members.skip();
            }
        }
        if (!structures.accept(members)) {
            break;
        }
    }
    if (report.result != DecodeResult::Good) {
        out.clear();
        return false;
    }
    return true;
}

template <typename DT>
void appendSamples(const std::vector<DT>& samples, std::vector<std::uint8_t>& out) {
    const detail::LengthField arrayLength(out);
    for (const DT& sample : samples) {
        const detail::LengthField structureLength(out);
        MemberWriter members(out);
        writeMembers(members, sample);
    }
}

}  // namespace someip
