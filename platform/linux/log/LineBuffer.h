#pragma once
/// Log lines in their order, in blocks of memory that are reused: a line costs a copy and no allocation, and
/// the memory of a burst goes back to the system.
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
    /// What a line of this length adds to bytes().
    static std::size_t weight(std::size_t length) { return sizeof(Head) + length; }

    /// Throws std::bad_alloc, without adding the line.
    void append(const LogLine& line);
    /// The oldest line; valid until pop(). The buffer must not be empty.
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
    std::size_t m_readAt = 0;  ///< position of the oldest line in the first block
    std::size_t m_lines = 0;
    std::size_t m_bytes = 0;
};

}  // namespace kyo
