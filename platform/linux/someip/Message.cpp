#include "someip/Message.h"

namespace someip {

void writeHeader(const Header& header, std::uint8_t* to) noexcept {
    storeBig(to, header.service);
    storeBig(to + 2, header.method);
    storeBig(to + 4, header.length);
    storeBig(to + 8, header.client);
    storeBig(to + 10, header.session);
    to[12] = header.protocolVersion;
    to[13] = header.interfaceVersion;
    to[14] = header.type;
    to[15] = header.returnCode;
}

bool MessageReader::next(Header& header, std::span<const std::uint8_t>& payload) noexcept {
    if (m_left.empty() || m_malformed) {
        return false;
    }
    if (m_left.size() < kHeaderSize) {
        m_malformed = true;
        return false;
    }
    const std::uint8_t* at = m_left.data();
    header.service = loadBig<std::uint16_t>(at);
    header.method = loadBig<std::uint16_t>(at + 2);
    header.length = loadBig<std::uint32_t>(at + 4);
    header.client = loadBig<std::uint16_t>(at + 8);
    header.session = loadBig<std::uint16_t>(at + 10);
    header.protocolVersion = at[12];
    header.interfaceVersion = at[13];
    header.type = at[14];
    header.returnCode = at[15];
    if (header.length < kLengthCovers || header.length - kLengthCovers > m_left.size() - kHeaderSize) {
        m_malformed = true;
        return false;
    }
    const std::size_t size = header.length - kLengthCovers;
    payload = m_left.subspan(kHeaderSize, size);
    m_left = m_left.subspan(kHeaderSize + size);
    return true;
}

}  // namespace someip
