/// A compressed envelope from the wire, perhaps with a dictionary. No text is longer than its limit.
#include "Fuzzing.h"
#include "backend/Compression.h"

using kyo::orx::Encoding;

void vlmFuzz::run(Input in) {
    constexpr std::size_t limit = 1u << 20;
    static const auto known = [] {
        kyo::orx::Dictionaries made;
        made.addBuiltIn();
        return made;
    }();
    const std::string payload = textOf(in.rest());
    const std::uint32_t needed = dictionaryOf(Encoding::Zstd, payload);
    std::string text;
    std::string error;
    if (!decompress(Encoding::Zstd, payload, text, error, limit, known)) {
        require(!error.empty() && text.empty(), "what is refused has a reason and no text");
        text = payload;  // anything can be compressed
    } else if (std::string none; needed != 0) {
        require(known.find(needed) != nullptr && !decompress(Encoding::Zstd, payload, none, error, limit),
                "nothing is read without its dictionary");
    }
    require(text.size() <= limit, "no text is longer than its limit");
    static kyo::orx::Compressor plain(1);
    std::string read;
    static kyo::orx::Compressor smaller(1, kyo::orx::Dictionary::load("50001", error));
    const std::string packed = ((payload.size() & 1) != 0 ? smaller : plain).compress(text);
    require(decompress(Encoding::Zstd, packed, read, error, limit, known) && read == text,
            "what is compressed comes back");
}
