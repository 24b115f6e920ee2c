#include "log/LineBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kyo {

namespace {

constexpr std::size_t kBlockBytes = 64u << 10;
constexpr std::size_t kMaxSpare = 4;

}  // namespace

void LineBuffer::Unmap::operator()(char* pages) const {
    ::munmap(pages, bytes);
}

void LineBuffer::append(const LogLine& line) {
    const std::size_t needed = weight(line.text.size());
    if (m_blocks.empty() || m_blocks.back().pages.get_deleter().bytes - m_blocks.back().used < needed) {
        if (m_lines == 0 && !m_blocks.empty()) {
            retireFirstBlock();  // all read, but too small for this line
        }
        addBlock(needed);
    }
    Block& block = m_blocks.back();
    const Head head{line.uptimeNs, static_cast<std::uint32_t>(line.text.size()), line.level};
    char* const to = block.pages.get() + block.used;
    std::memcpy(to, &head, sizeof head);
    line.text.copy(to + sizeof head, line.text.size());
    block.used += needed;
    m_bytes += needed;
    ++m_lines;
}

LogLine LineBuffer::front() const {
    const char* const from = m_blocks.front().pages.get() + m_readAt;
    Head head{};
    std::memcpy(&head, from, sizeof head);
    return {{from + sizeof head, head.length}, head.uptimeNs, head.level};
}

void LineBuffer::pop() {
    const std::size_t taken = weight(front().text.size());
    m_readAt += taken;
    m_bytes -= taken;
    --m_lines;
    Block& block = m_blocks.front();
    if (m_readAt < block.used) {
        return;
    }
    if (m_lines == 0 && block.pages.get_deleter().bytes == kBlockBytes) {
        m_readAt = 0;
        block.used = 0;  // reused for the next line
        return;
    }
    retireFirstBlock();
}

void LineBuffer::retireFirstBlock() {
    Block& block = m_blocks.front();
    m_readAt = 0;
    block.used = 0;
    if (block.pages.get_deleter().bytes == kBlockBytes && m_spare.size() < kMaxSpare) {
        m_spare.push_back(std::move(block));
    }
    m_blocks.pop_front();
}

void LineBuffer::swap(LineBuffer& other) noexcept {
    m_blocks.swap(other.m_blocks);
    m_spare.swap(other.m_spare);
    std::swap(m_readAt, other.m_readAt);
    std::swap(m_lines, other.m_lines);
    std::swap(m_bytes, other.m_bytes);
}

void LineBuffer::addBlock(std::size_t atLeast) {
    if (!m_spare.empty() && atLeast <= kBlockBytes) {
        m_blocks.push_back(std::move(m_spare.back()));
        m_spare.pop_back();
        return;
    }
    // mmap, since the heap of a thread would keep the memory, and many short-lived threads log.
    const std::size_t bytes = std::max(atLeast, kBlockBytes);
    void* const pages = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    m_blocks.push_back({std::unique_ptr<char, Unmap>(static_cast<char*>(pages), Unmap{bytes}), 0});
}

}  // namespace kyo
