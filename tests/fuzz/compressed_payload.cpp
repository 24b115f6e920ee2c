/// A compressed envelope from the wire. No text is longer than its limit.
#include "Fuzzing.h"
#include "backend/Compression.h"

using vlmFuzz::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t limit = 1u << 20;
    const std::string payload = vlmFuzz::textOf({data, size});
    std::string text;
    std::string error;
    if (!decompress(kyo::orx::Encoding::Zstd, payload, text, error, limit)) {
        require(!error.empty() && text.empty(), "what is refused has a reason and no text");
        text = payload;  // anything can be compressed
    }
    require(text.size() <= limit, "no text is longer than its limit");
    static kyo::orx::Compressor compressor(1);
    std::string again;
    require(
        decompress(kyo::orx::Encoding::Zstd, compressor.compress(text), again, error, limit) && again == text,
        "what is compressed comes back");
    return 0;
}
