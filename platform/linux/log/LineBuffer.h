#pragma once
/// Log lines in the order they came, one behind the other in blocks of memory that are used again: a line
/// costs a copy and no allocation, and what a burst took goes back to the system whole.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

namespace kyo {

struct LogLine {
    std::string_view text;
    std::int64_t uptimeNs = 0;  ///< monotonic clock, nanoseconds
    std::uint8_t level = 0;
};

/// A queue for one thread at a time.
class LineBuffer {
  public:
    /// What a line of that length takes of bytes().
    static std::size_t weight(std::size_t length) { return sizeof(Head) + length; }

    /// Throws std::bad_alloc; the line is then not there.
    void append(const LogLine& line);
    /// The oldest line; valid until it is taken away. There must be one.
    LogLine front() const;
    void pop();

    bool empty() const { return m_lines == 0; }
    std::size_t lines() const { return m_lines; }
    std::size_t bytes() const { return m_bytes; }
    void swap(LineBuffer& other) noexcept;

  private:
    struct Head {
        std::int64_t uptimeNs;
        std::uint32_t length;
        std::uint8_t level;
    };
    struct Unmap {
        std::size_t bytes;
        void operator()(char* pages) const;
    };
    struct Block {
        std::unique_ptr<char, Unmap> pages;
        std::size_t used = 0;
    };

    void addBlock(std::size_t atLeast);
    void retireFirstBlock();

    std::deque<Block> m_blocks;
    std::vector<Block> m_spare;
    std::size_t m_readAt = 0;  ///< where the oldest line begins in the first block
    std::size_t m_lines = 0;
    std::size_t m_bytes = 0;
};

}  // namespace kyo
