#pragma once
/// What the fuzz targets share. A target must behave the same for the same bytes.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kyo/Json.h"

namespace vlmFuzz {

using Bytes = std::span<const std::uint8_t>;

/// Ends the process with that text, as a sanitizer would, where something that must hold does not.
void require(bool holds, const char* what);

/// Switches all log lines on and drops them: what composes them sees the input as well.
void logToNowhere();

/// Takes an input apart; at its end everything is 0 or empty.
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
    /// Up to the next line end, which is taken too.
    std::string line();

  private:
    Bytes m_left;
};

inline std::string textOf(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A file in memory, for entry functions that take a path. One per process, its content is replaced.
std::string fileWith(const std::string& content);

/// As the product reads its files and messages. False when the text is no JSON.
bool parse(const std::string& text, kyo::Json::Value& out);

}  // namespace vlmFuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
