#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "machine/Manifest.h"

namespace kyo::orx {

/// How the text of an envelope is written, on disk and on the wire.
enum class Encoding : std::uint8_t { Plain = 0, Zstd = 1 };

/// "plain" or "zstd", as a topic or a user property says it.
const char* nameOf(Encoding encoding);

/// The longest text that decompress() makes unless it is told otherwise.
inline constexpr std::size_t kLargestText = 64u << 20;

/// Compresses one text after the other. One thread at a time.
class Compressor {
  public:
    /// Levels as of zstd, from 1 to 19.
    explicit Compressor(int level);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    /// One zstd frame that tells its text's length and ends with a checksum. Empty when memory is short.
    std::string compress(std::string_view text);

  private:
    struct Context;
    const std::unique_ptr<Context> m_context;
};

/// As the manifest says; none for plain text.
std::unique_ptr<Compressor> makeCompressor(const machine::Compression& settings);

/// The text of an untrusted payload. The length that a frame claims is compared with `limit` before any
/// memory is taken for it. False with the reason in `error`.
bool decompress(Encoding encoding, std::string_view payload, std::string& text, std::string& error,
                std::size_t limit = kLargestText);

}  // namespace kyo::orx
