#pragma once
/// Common parts of the fuzz targets. A target must be deterministic.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace vlmFuzz {

using Bytes = std::span<const std::uint8_t>;

/// Ends the process with that text, like a sanitizer, unless `holds`.
void require(bool holds, const char* what);

/// Reads values from the input. After its end all values are 0 or empty.
class Input {
  public:
    explicit Input(Bytes bytes) noexcept : m_left(bytes) {}

    bool empty() const noexcept { return m_left.empty(); }
    std::uint8_t byte() noexcept {
        const Bytes one = take(1);
        return one.empty() ? 0 : one[0];
    }
    std::uint16_t word() noexcept {
        const unsigned high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    Bytes take(std::size_t count) noexcept {
        const Bytes taken = m_left.first(count < m_left.size() ? count : m_left.size());
        m_left = m_left.subspan(taken.size());
        return taken;
    }
    Bytes rest() noexcept { return take(m_left.size()); }
    /// The text up to the next line end, which is skipped.
    std::string line();

  private:
    Bytes m_left;
};

inline std::string textOf(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

/// Returns the path of a file in memory, for functions that take a path. One per process; replaces its
/// content.
std::string fileWith(const std::string& content);

/// Parses as the product does. Returns false when the text is no JSON.
bool parse(const std::string& text, kyo::Json::Value& out);

/// The target itself: handles one input. All log lines are composed, and go nowhere.
void run(Input in);

}  // namespace vlmFuzz
