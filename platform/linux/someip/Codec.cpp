#include "someip/Codec.h"

#include <cstring>
#include <iterator>

namespace someip {

namespace {

constexpr const char* kTruncated =
    "Violation of [PRS_SOMEIP_00900]: Record length given by sender is too small. This is possibly due to a "
    "mismatch between the data models of sender and receiver.";

/// Every text on the wire (UTF-8) starts with this and ends with a zero byte.
constexpr std::uint8_t kByteOrderMark[] = {0xEF, 0xBB, 0xBF};
constexpr std::size_t kTextOverhead = sizeof kByteOrderMark + 1;

}  // namespace

bool MemberReader::fail(DecodeResult result, const char* reason) noexcept {
    if (m_result == DecodeResult::Good) {
        m_result = result;
        m_reason = reason;
    }
    m_at = m_end;
    return false;
}

bool MemberReader::nextComplex() noexcept {
    if (m_type > 7) {
        return fail(DecodeResult::Malformed, "the reserved bit of the tag is set");
    }
    if (m_type == 4) {
        // The width of the length field depends on the member: take() or skip() continue here.
        m_value = m_at;
        m_size = 0;
        return true;
    }
    const std::size_t width = std::size_t{1} << (m_type - 5);
    if (width > left()) {
        return fail(DecodeResult::Truncated, "the member's length field is cut off");
    }
    std::size_t size = 0;
    for (std::size_t i = 0; i < width; ++i) {
        size = (size << 8) | m_at[i];
    }
    m_at += width;
    return bound(size);
}

void MemberReader::takeText(std::optional<std::string>& out) {
    if (m_type < 4) {
        fail(DecodeResult::Malformed, "the wire type is not the one of the member's data type");
        return;
    }
    if (m_type == 4) {
        if (left() < 4) {
            fail(DecodeResult::Truncated, "the member's length field is cut off");
            return;
        }
        const std::size_t size = someip::loadBig<std::uint32_t>(m_at);
        m_at += 4;
        if (!bound(size)) {
            return;
        }
    }
    if (out.has_value()) {
        ++m_doubled;
        return;
    }
    if (m_size < kTextOverhead || std::memcmp(m_value, kByteOrderMark, sizeof kByteOrderMark) != 0 ||
        m_value[m_size - 1] != 0) {
        fail(DecodeResult::Malformed, "a text lacks its byte order mark or its final zero");
        return;
    }
    out.emplace(reinterpret_cast<const char*>(m_value) + sizeof kByteOrderMark, m_size - kTextOverhead);
}

void MemberWriter::putText(std::uint16_t id, const std::string& text) {
    someip::appendBig(m_out, tag(7, id));
    someip::appendBig(m_out, static_cast<std::uint32_t>(text.size() + kTextOverhead));
    m_out.insert(m_out.end(), std::begin(kByteOrderMark), std::end(kByteOrderMark));
    m_out.insert(m_out.end(), text.begin(), text.end());
    m_out.push_back(0);
}

namespace detail {

StructureReader::StructureReader(std::span<const std::uint8_t> payload, DecodeReport& report)
    : m_at(payload.data()), m_end(payload.data()), m_report(report) {
    if (payload.size() < 4) {
        report.result = DecodeResult::Malformed;
        report.error =
            "the payload holds " + std::to_string(payload.size()) + " bytes where the array's length needs 4";
        return;
    }
    const std::size_t size = someip::loadBig<std::uint32_t>(payload.data());
    if (size > payload.size() - 4) {
        report.result = DecodeResult::Malformed;
        report.error = "the array's length is " + std::to_string(size) + " where " +
                       std::to_string(payload.size() - 4) + " bytes are left";
        return;
    }
    m_at += 4;
    m_end = m_at + size;
}

bool StructureReader::next(std::span<const std::uint8_t>& structure) {
    if (m_at == m_end) {
        return false;
    }
    const auto left = static_cast<std::size_t>(m_end - m_at);
    const std::size_t size = left < 4 ? 0 : someip::loadBig<std::uint32_t>(m_at);
    if (left < 4 || size > left - 4) {
        m_report.result = DecodeResult::Malformed;
        m_report.error = "structure " + std::to_string(m_index) +
                         (left < 4 ? ": " + std::to_string(left) + " bytes are left where its length needs 4"
                                   : ": its length is " + std::to_string(size) + " where " +
                                         std::to_string(left - 4) + " bytes are left");
        return false;
    }
    if (m_index == kMaxSamplesPerMessage) {
        m_report.result = DecodeResult::Malformed;
        m_report.error = "more than " + std::to_string(kMaxSamplesPerMessage) + " structures in one message";
        return false;
    }
    structure = {m_at + 4, size};
    m_at += 4 + size;
    ++m_index;
    return true;
}

bool StructureReader::accept(const MemberReader& members) {
    m_report.doubledMembers += members.doubled();
    if (members.result() == DecodeResult::Good) {
        return true;
    }
    m_report.result = members.result();
    m_report.error = members.result() == DecodeResult::Truncated ? kTruncated : "";
    if (members.result() == DecodeResult::Malformed) {
        m_report.error = "structure " + std::to_string(m_index - 1) + ", member " +
                         std::to_string(members.id()) + ": " + members.reason();
    }
    return false;
}

}  // namespace detail

}  // namespace someip
