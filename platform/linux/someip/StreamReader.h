#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace someip {

/// Splits the bytes of a TCP stream into messages, which may begin and end anywhere in what is received at
/// once. Skips magic cookies. One thread; it owns no socket.
class StreamReader {
  public:
    /// `maxMessage`: bytes of one message with its header; a longer one ends the stream.
    explicit StreamReader(std::size_t maxMessage) : m_maxMessage(maxMessage) {}

    /// Space for the next bytes, at least 4 KiB. Grows with the bytes that have come, not with the length
    /// that a header promises. Ends what next() returned.
    std::span<std::uint8_t> space();
    /// The first `size` bytes of space() have been filled.
    void filled(std::size_t size) noexcept { m_end += size; }

    /// Returns the next whole message; an empty span when more bytes are needed, or when the stream is
    /// broken.
    std::span<const std::uint8_t> next() noexcept;
    /// A length was impossible, so the beginning of the next message is unknown. Stays so.
    bool broken() const noexcept { return m_broken; }

  private:
    const std::size_t m_maxMessage;
    std::vector<std::uint8_t> m_buffer;
    std::size_t m_begin = 0;  ///< of the first message that next() has not returned
    std::size_t m_end = 0;    ///< of the bytes that have come
    bool m_broken = false;
};

}  // namespace someip
