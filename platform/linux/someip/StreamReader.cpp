#include "someip/StreamReader.h"

#include <algorithm>
#include <cstring>

#include "someip/Message.h"

namespace someip {

namespace {

constexpr std::size_t kLeastSpace = 4096;
/// An empty buffer beyond this size is released.
constexpr std::size_t kKeptBuffer = 256u << 10;

/// A magic cookie, of a server or of a client: they differ in the method and the message type.
bool isCookie(const std::uint8_t* message, std::size_t size) noexcept {
    return size == kHeaderSize && std::equal(message, message + 2, kServerCookie) &&
           std::equal(message + 8, message + 12, kServerCookie + 8);
}

}  // namespace

std::span<std::uint8_t> StreamReader::space() {
    if (m_begin != 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end == 0 && m_buffer.size() > kKeptBuffer) {
        m_buffer = {};
    }
    if (m_buffer.size() - m_end < kLeastSpace) {
        m_buffer.resize(std::max(16 * kLeastSpace, 2 * m_end));
    }
    return std::span(m_buffer).subspan(m_end);
}

std::span<const std::uint8_t> StreamReader::next() noexcept {
    while (!m_broken && m_end - m_begin >= kHeaderSize) {
        const std::uint8_t* const message = m_buffer.data() + m_begin;
        const std::uint64_t size =
            std::uint64_t{loadBig<std::uint32_t>(message + 4)} + kHeaderSize - kLengthCovers;
        if (size < kHeaderSize || size > m_maxMessage) {
            m_broken = true;
            break;
        }
        if (m_end - m_begin < size) {
            break;
        }
        m_begin += size;
        if (!isCookie(message, size)) {
            return {message, static_cast<std::size_t>(size)};
        }
    }
    return {};
}

}  // namespace someip
