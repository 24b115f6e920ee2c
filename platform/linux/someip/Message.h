#pragma once
/// The 16-byte header of every message, and a reader for the messages of one datagram.
#include <cstddef>
#include <cstdint>
#include <span>

#include "someip/ByteOrder.h"

namespace someip {

inline constexpr std::size_t kHeaderSize = 16;
/// Header bytes that the length field counts in addition to the payload: the second half.
inline constexpr std::size_t kLengthCovers = 8;
inline constexpr std::uint8_t kProtocolVersion = 1;
/// The largest payload of a message that fits into one UDP datagram of an Ethernet frame. Larger ones are
/// segmented.
inline constexpr std::size_t kMaxUnsegmentedPayload = 1400;

enum class MessageType : std::uint8_t {
    Request = 0x00,
    RequestNoReturn = 0x01,
    Notification = 0x02,
    Response = 0x80,
    Error = 0x81,
};
/// Added to a type when the message is a segment.
inline constexpr std::uint8_t kSegmentFlag = 0x20;

struct Header {
    std::uint16_t service = 0;
    std::uint16_t method = 0;  ///< or event
    std::uint32_t length = kLengthCovers;
    std::uint16_t client = 0;
    std::uint16_t session = 0;
    std::uint8_t protocolVersion = kProtocolVersion;
    std::uint8_t interfaceVersion = 0;
    std::uint8_t type = static_cast<std::uint8_t>(MessageType::Notification);
    std::uint8_t returnCode = 0;

    bool isSegment() const noexcept { return (type & kSegmentFlag) != 0; }
};

/// The magic cookie of a server: a message without meaning that lets a reader of a captured TCP stream find
/// the beginning of the next one.
inline constexpr std::uint8_t kServerCookie[kHeaderSize] = {0xFF, 0xFF, 0x80, 0x00, 0, 0, 0, 8,
                                                            0xDE, 0xAD, 0xBE, 0xEF, 1, 1, 2, 0};

/// Writes 16 bytes.
void writeHeader(const Header& header, std::uint8_t* to) noexcept;

/// The messages of one datagram, in order.
class MessageReader {
  public:
    explicit MessageReader(std::span<const std::uint8_t> datagram) noexcept : m_left(datagram) {}

    /// Reads the next message. Returns false at the end, and when the remaining bytes are no message: then
    /// malformed() is true, and the rest of the datagram is lost.
    bool next(Header& header, std::span<const std::uint8_t>& payload) noexcept;
    bool malformed() const noexcept { return m_malformed; }

  private:
    std::span<const std::uint8_t> m_left;
    bool m_malformed = false;
};

}  // namespace someip
